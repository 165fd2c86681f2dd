#include <utility>

#include "interfaces/helper_vlan.h"

namespace HelperVLAN {

VLANError::VLANError(Kind kind, std::string interfaceName, const std::string& message)
    : std::runtime_error(message), kind_(kind), interfaceName_(std::move(interfaceName)) {}

VLANError VLANError::noSuchPhysicalInterface(const std::string& parentBSD) {
  return {Kind::noSuchPhysicalInterface, parentBSD,
          "No physical interface named " + parentBSD + "."};
}

VLANError VLANError::notFound(const std::string& bsdName) {
  return {Kind::notFound, bsdName, "No VLAN interface named " + bsdName + "."};
}

VLANError VLANError::preferences() {
  return {Kind::preferences, "", "Could not open the system network preferences."};
}

VLANError VLANError::createFailed() {
  return {Kind::createFailed, "", "macOS refused to create the VLAN interface."};
}

VLANError VLANError::notCreatedByHelper() {
  return {Kind::notCreatedByHelper, "", "Tarnly's helper only removes VLANs it created."};
}

VLANError VLANError::commitFailed() {
  return {Kind::commitFailed, "", "Could not save the network configuration."};
}

}  // namespace HelperVLAN
