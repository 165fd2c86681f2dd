// The process-wide firewall lock: apply, remove, boot re-apply and the uninstall clean-up hold it
// for their whole run, so they happen one at a time. The status report does not take it.
#pragma once

#include <mutex>

namespace HelperFirewall {

// Created on first use; lives for the whole process.
std::mutex& lock();

}  // namespace HelperFirewall
