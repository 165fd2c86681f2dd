#include "nft_session.h"

#include <nftables/libnftables.h>

#include <stdexcept>

namespace {

std::string trimmed(const char* text) {
  std::string value = text != nullptr ? text : "";
  size_t end = value.find_last_not_of(" \t\r\n");
  return end == std::string::npos ? "" : value.substr(0, end + 1);
}

}  // namespace

NftSession::NftSession() : context_(nft_ctx_new(NFT_CTX_DEFAULT)) {
  if (context_ == nullptr) throw std::runtime_error("cannot create an nftables context");
  nft_ctx_buffer_output(context_);
  nft_ctx_buffer_error(context_);
}

NftSession::~NftSession() {
  nft_ctx_free(context_);
}

NftSession::Result NftSession::run(const std::string& commands, bool json) {
  nft_ctx_output_set_flags(context_, json ? NFT_CTX_OUTPUT_JSON : 0);
  Result result;
  result.ok = nft_run_cmd_from_buffer(context_, commands.c_str()) == 0;
  result.output = nft_ctx_get_output_buffer(context_);
  result.error = trimmed(nft_ctx_get_error_buffer(context_));
  return result;
}
