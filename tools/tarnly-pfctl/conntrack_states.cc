#include "conntrack_states.h"

#include <arpa/inet.h>
#include <libnetfilter_conntrack/libnetfilter_conntrack.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "platform/files.h"

namespace {

struct Dump {
  PfAddress source;
  PfAddress destination;
  std::vector<nf_conntrack*> matching;
};

int collect(enum nf_conntrack_msg_type, nf_conntrack* ct, void* data) {
  auto* dump = static_cast<Dump*>(data);
  if (nfct_get_attr_u8(ct, ATTR_ORIG_L3PROTO) != AF_INET) return NFCT_CB_CONTINUE;
  uint32_t source = ntohl(nfct_get_attr_u32(ct, ATTR_ORIG_IPV4_SRC));
  uint32_t destination = ntohl(nfct_get_attr_u32(ct, ATTR_ORIG_IPV4_DST));
  if (pfNetworkContains(dump->source, source) &&
      pfNetworkContains(dump->destination, destination)) {
    nf_conntrack* copy = nfct_clone(ct);
    if (copy != nullptr) dump->matching.push_back(copy);
  }
  return NFCT_CB_CONTINUE;
}

}  // namespace

size_t conntrackStateCount() {
  auto text = readFile("/proc/sys/net/netfilter/nf_conntrack_count");
  if (!text) return 0;
  try {
    return std::stoul(*text);
  } catch (const std::exception&) {
    return 0;
  }
}

std::optional<size_t> conntrackKill(const PfAddress& source, const PfAddress& destination,
                                    std::string& error) {
  std::unique_ptr<nfct_handle, int (*)(nfct_handle*)> handle(nfct_open(CONNTRACK, 0), nfct_close);
  if (!handle) {
    error = std::string("cannot open connection tracking: ") + std::strerror(errno);
    return std::nullopt;
  }
  Dump dump{source, destination, {}};
  nfct_callback_register(handle.get(), NFCT_T_ALL, collect, &dump);
  uint32_t family = AF_INET;
  int dumped = nfct_query(handle.get(), NFCT_Q_DUMP, &family);
  int dumpError = errno;
  nfct_callback_unregister(handle.get());
  size_t killed = 0;
  for (nf_conntrack* ct : dump.matching) {
    // A connection that ended meanwhile is already gone; that is not a failure.
    if (dumped == 0 && nfct_query(handle.get(), NFCT_Q_DESTROY, ct) == 0) ++killed;
    nfct_destroy(ct);
  }
  if (dumped != 0) {
    error = std::string("cannot read connection tracking: ") + std::strerror(dumpError);
    return std::nullopt;
  }
  return killed;
}
