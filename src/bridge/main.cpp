#include "bridge/TavixComputerUseBridgeMain.h"

int main(int argc, char **argv) {
  return tavix::TavixComputerUseBridgeMain::main(std::vector<std::string>(argv, argv + argc));
}
