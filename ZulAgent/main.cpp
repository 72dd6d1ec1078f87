#include "ZulAgent/AgentMain.h"

int main(int argc, char** argv) { return zul::agentMain(argc, argv); }
