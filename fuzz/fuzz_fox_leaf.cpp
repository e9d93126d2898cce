// Fuzz target for the compact leaf codec: the input's first bytes choose a
// key length and pad, the next 512 bytes are a node.  A node that decodes
// must re-encode (with its own widths) into a node that decodes to the same
// entries; one that does not decode is refused, never read out of bounds.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "index/foxpro/fox_format.h"

using namespace kestrel::foxpro;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2 + kNodeSize) return 0;
  const int kl = 1 + data[0] % kMaxKeyLength;
  const uint8_t pad = (data[1] & 1) ? ' ' : 0;
  NodeShape shape{kl, true, pad};
  uint8_t node[kNodeSize];
  std::memcpy(node, data + 2, kNodeSize);
  node[0] |= kAttrLeaf;
  std::vector<uint8_t> keys(static_cast<size_t>(kMaxNodeEntries) * kl);
  std::vector<uint8_t> again(keys.size());
  Node n;
  n.keys = keys.data();
  if (!DecodeNode(node, shape, &n)) return 0;
  uint8_t out[kNodeSize];
  std::memcpy(out, node, kNodeSize);
  // Entries another writer stored may share prefixes we never write, so the
  // encoding may need more room; when it fits it must read back the same.
  if (!EncodeLeaf(n.keys, n.records, n.count, kl, pad, n.widths, out)) return 0;
  Node m;
  m.keys = again.data();
  if (!DecodeNode(out, shape, &m) || m.count != n.count ||
      std::memcmp(m.keys, n.keys, static_cast<size_t>(n.count) * kl) != 0 ||
      std::memcmp(m.records, n.records, sizeof(uint32_t) * n.count) != 0 ||
      m.free_bytes != kLeafArea - m.used_bytes)
    __builtin_trap();
  return 0;
}
