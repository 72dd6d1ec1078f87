#include "ZulAgent/AgentMain.h"
#include "ZulAgent/windows/RealAgentWindows.h"

int main(int argc, char** argv) {
  zul::setWindowedRealAgent(zul::runRealAgentWithWindows);
  return zul::agentMain(argc, argv);
}
