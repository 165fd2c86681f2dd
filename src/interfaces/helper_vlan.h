// HelperVLAN: the VLANs the helper creates for the application, with the record file that lets it
// tell its own VLANs from the user's.
#pragma once

#include "service/helper_environment.h"

namespace HelperVLAN {

// Deletes the record file when it lists no VLAN (or cannot be read as a list).
void removeRecordFileIfEmpty(const HelperEnvironment& env);

}  // namespace HelperVLAN
