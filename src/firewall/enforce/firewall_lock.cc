#include "firewall/enforce/firewall_lock.h"

namespace HelperFirewall {

std::mutex& lock() {
  // Never destroyed: the helper's exits end the process while other threads may hold it.
  static std::mutex* const instance = new std::mutex;
  return *instance;
}

}  // namespace HelperFirewall
