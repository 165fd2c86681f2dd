// The protocol's operations wired to the real subsystems: the firewall, VLANs, vmnet pruning,
// command-line links, resolver files, the uninstall clean-up and the listener's own methods.
#pragma once

#include <memory>

#include "platform/vlan_configuration.h"
#include "service/helper_environment.h"
#include "service/helper_listener.h"
#include "service/helper_protocol.h"

// The operations on `env`. `listener` and `vlans` must outlive every call.
HelperProtocol::Operations helperOperations(const HelperEnvironment& env,
                                            const std::shared_ptr<HelperListener>& listener,
                                            VLANConfiguration& vlans);
