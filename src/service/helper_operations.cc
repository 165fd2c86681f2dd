#include "service/helper_operations.h"

#include "firewall/enforce/firewall_operations.h"
#include "firewall/enforce/uninstall_cleanup.h"
#include "host/helper_cli_symlink.h"
#include "host/helper_resolver.h"
#include "interfaces/helper_vlan.h"
#include "interfaces/helper_vmnet.h"

HelperProtocol::Operations helperOperations(const HelperEnvironment& env,
                                            const std::shared_ptr<HelperListener>& listener,
                                            VLANConfiguration& vlans) {
  HelperListener* serving = listener.get();
  HelperProtocol::Operations operations;
  operations.noteActivity = [serving] { serving->noteActivity(); };
  operations.versionString = HelperListener::versionString;
  operations.applyFirewall = [&env](const std::string& policyData, std::uint32_t uid,
                                    bool adoptLegacy) {
    return HelperFirewall::apply(env, policyData, uid, adoptLegacy);
  };
  operations.removeFirewall = [&env](std::uint32_t uid, bool adoptLegacy) {
    HelperFirewall::remove(env, uid, adoptLegacy);
  };
  operations.firewallReport = [&env] { return HelperFirewall::statusReport(env); };
  operations.createVLAN = [&env, &vlans](const std::string& name, std::int64_t tag,
                                         const std::string& parentBSD) {
    return HelperVLAN::create(env, vlans, name, tag, parentBSD);
  };
  operations.deleteVLAN = [&env, &vlans](const std::string& bsdName) {
    HelperVLAN::deleteVLAN(env, vlans, bsdName);
  };
  operations.createdVLANs = [&env, &vlans] {
    return encodeCreatedVLANs(HelperVLAN::createdVLANs(env, vlans));
  };
  operations.installCLISymlink = [&env] { HelperCLISymlink::install(env); };
  operations.removeCLISymlink = [&env] { HelperCLISymlink::remove(env); };
  operations.pruneStaleVMInterfaces = [&env] { return HelperVMNet::pruneStale(env); };
  operations.setResolver = [&env](bool enabled) {
    if (enabled) {
      HelperResolver::install(env);
    } else {
      HelperResolver::remove(env);
    }
  };
  operations.shutdownForUpgrade = [serving] { serving->shutdownForUpgrade(); };
  operations.removeFilesForUninstall = [&env] {
    return HelperFirewall::removeStateForUninstall(env);
  };
  return operations;
}
