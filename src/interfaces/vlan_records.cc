// The record file "vlans.json": reading, writing and the uninstall clean-up.
#include <cerrno>
#include <exception>
#include <nlohmann/json.hpp>

#include "interfaces/helper_vlan.h"
#include "interfaces/json_fields.h"
#include "platform/files.h"

namespace HelperVLAN {

namespace {

std::string recordFile(const HelperEnvironment& env) {
  return env.paths.state(kRecordFileName);
}

}  // namespace

std::mutex& recordFileLock() {
  // Never destroyed: the helper ends with _exit while request threads may still hold it.
  static auto* lock = new std::mutex;
  return *lock;
}

std::string encodeRecords(const std::vector<Record>& records) {
  nlohmann::ordered_json array = nlohmann::ordered_json::array();
  for (const Record& record : records) {
    // cppcheck-suppress useStlAlgorithm
    array.push_back(
        {{"bsdName", record.bsdName}, {"tag", record.tag}, {"parentBSD", record.parentBSD}});
  }
  return array.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

std::optional<std::vector<Record>> decodeRecords(std::string_view json) {
  nlohmann::json array = nlohmann::json::parse(json, nullptr, false);
  if (!array.is_array()) return std::nullopt;
  std::vector<Record> records;
  for (const nlohmann::json& element : array) {
    Record record;
    if (!JSONFields::readString(element, "bsdName", record.bsdName) ||
        !JSONFields::readInteger(element, "tag", record.tag) ||
        !JSONFields::readString(element, "parentBSD", record.parentBSD)) {
      return std::nullopt;
    }
    records.push_back(std::move(record));
  }
  return records;
}

std::vector<Record> loadRecords(const HelperEnvironment& env) {
  std::optional<std::string> data = readFile(recordFile(env));
  if (!data) return {};
  return decodeRecords(*data).value_or(std::vector<Record>{});
}

void saveRecords(const HelperEnvironment& env, const std::vector<Record>& records) {
  const std::string path = recordFile(env);
  try {
    createDirectories(env.paths.stateDirectory);
    writeFileAtomically(path, encodeRecords(records), 0600);
  } catch (const std::exception& error) {
    env.log.write(std::string("Could not record Tarnly's VLANs: ") + error.what());
  }
}

void removeRecordFileIfEmpty(const HelperEnvironment& env) {
  std::lock_guard<std::mutex> guard(recordFileLock());
  const std::string path = recordFile(env);
  if (!pathExists(path)) return;
  if (loadRecords(env).empty()) removeFile(path);
}

}  // namespace HelperVLAN
