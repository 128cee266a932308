#include "bridge/TavixComputerUseBridgeMain.h"
#include "platform/MemoryAllocator.h"

int main(int argc, char **argv) {
  tavix::tuneAllocatorForLargePayloads();
  return tavix::TavixComputerUseBridgeMain::main(std::vector<std::string>(argv, argv + argc));
}
