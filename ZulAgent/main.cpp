#include "ZulAgent/AgentMain.h"
#include "ZulAgent/windows/RealAgentWindows.h"

int main(int argc, char** argv) { return zul::agentMain(argc, argv, zul::runRealAgentWithWindows); }
