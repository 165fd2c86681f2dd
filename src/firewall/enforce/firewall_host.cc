#include "firewall/enforce/firewall_host.h"

#include <thread>

void sleepFor(std::chrono::microseconds duration) {
  std::this_thread::sleep_for(duration);
}
