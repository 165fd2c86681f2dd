// NftSession: one libnftables context for tarnly-pfctl, running command text as one transaction
// and returning what nft printed. Not thread-safe; one per process.
#pragma once

#include <string>

struct nft_ctx;

class NftSession {
 public:
  struct Result {
    bool ok = false;
    std::string output;  // the listing (JSON when asked)
    std::string error;   // libnftables' messages, trimmed
  };

  NftSession();
  ~NftSession();
  NftSession(const NftSession&) = delete;
  NftSession& operator=(const NftSession&) = delete;

  // Runs `commands` (nft's own syntax) as one batch: the kernel applies all of it or none.
  // On failure `ok` is false and `error` holds nft's message.
  Result run(const std::string& commands, bool json = false);

 private:
  nft_ctx* context_;
};
