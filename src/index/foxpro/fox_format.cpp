// The compact leaf codec and the decoding of every FoxPro node kind.
#include "index/foxpro/fox_format.h"

#include <cstring>

namespace kestrel::foxpro {
namespace {

int SignificantBits(int value) {
  int bits = 0;
  while (value > 0) {
    ++bits;
    value >>= 1;
  }
  return bits;
}

uint64_t ReadField(const uint8_t* p, int bytes) {
  uint64_t v = 0;
  for (int i = bytes - 1; i >= 0; --i) v = v << 8 | p[i];
  return v;
}

uint32_t MaskOf(int bits) { return bits >= 32 ? 0xFFFFFFFFu : (1u << bits) - 1; }

}  // namespace

bool LeafWidths::Read(const uint8_t* node) {
  record_mask = LoadLE32(node + 14);
  dup_mask = node[18];
  trail_mask = node[19];
  record_bits = node[20];
  dup_bits = node[21];
  trail_bits = node[22];
  bytes = node[23];
  if (bytes < 1 || bytes > 6 || dup_bits > 8 || trail_bits > 8) return false;
  if (record_bits + dup_bits + trail_bits > 8 * bytes) return false;
  if (record_bits < 32 && (static_cast<uint64_t>(record_mask) >> record_bits) != 0) return false;
  if ((static_cast<unsigned>(dup_mask) >> dup_bits) != 0) return false;
  if ((static_cast<unsigned>(trail_mask) >> trail_bits) != 0) return false;
  return true;
}

void LeafWidths::Write(uint8_t* node) const {
  StoreLE32(node + 14, record_mask);
  node[18] = dup_mask;
  node[19] = trail_mask;
  node[20] = record_bits;
  node[21] = dup_bits;
  node[22] = trail_bits;
  node[23] = bytes;
}

LeafWidths LeafWidths::Base(int key_length, bool directory) {
  LeafWidths w;
  int b = SignificantBits(key_length);
  w.dup_bits = w.trail_bits = static_cast<uint8_t>(b);
  w.dup_mask = w.trail_mask = static_cast<uint8_t>((1u << b) - 1);
  w.bytes = static_cast<uint8_t>(directory ? 4 : (2 * b + 21) / 8);
  w.record_bits = static_cast<uint8_t>(8 * w.bytes - 2 * b);
  w.record_mask = MaskOf(w.record_bits);
  return w;
}

LeafWidths LeafWidths::For(int key_length, bool directory, uint32_t max_record) {
  LeafWidths w = Base(key_length, directory);
  while (max_record > w.record_mask && w.bytes < 6) {
    ++w.bytes;
    w.record_bits = static_cast<uint8_t>(w.record_bits + 8);
    w.record_mask = MaskOf(w.record_bits);
  }
  return w;
}

int TrailingCount(const uint8_t* key, int key_length, uint8_t pad) {
  int n = 0;
  while (n < key_length && key[key_length - 1 - n] == pad) ++n;
  return n;
}

// The shared prefix never reaches into the trailing pad of either key: the
// pad is not stored, so a reader must not be asked to copy it from the key
// before.  (FoxPro and Visual FoxPro write exactly this count; they do not
// hold back a run of blanks that ends the shared part.)
int DuplicateCount(const uint8_t* key, const uint8_t* prev, int key_length, int trail,
                   int prev_trail) {
  int limit = key_length - (trail > prev_trail ? trail : prev_trail);
  int i = 0;
  while (i < limit && key[i] == prev[i]) ++i;
  return i;
}

bool EncodeLeaf(const uint8_t* keys, const uint32_t* records, int count, int key_length,
                uint8_t pad, const LeafWidths& w, uint8_t* node) {
  if (count < 0 || count * w.bytes > kLeafArea) return false;
  int used = count * w.bytes;
  int prev_trail = 0;
  for (int i = 0; i < count; ++i) {
    const uint8_t* key = keys + i * key_length;
    if ((records[i] & ~w.record_mask) != 0) return false;
    int trail = TrailingCount(key, key_length, pad);
    int dup = i == 0 ? 0 : DuplicateCount(key, key - key_length, key_length, trail, prev_trail);
    // Widths (of another writer's leaf) too narrow for the counts.
    if ((dup & ~w.dup_mask) != 0 || (trail & ~w.trail_mask) != 0) return false;
    used += key_length - dup - trail;
    if (used > kLeafArea) return false;
    prev_trail = trail;
  }
  StoreLE16(node + 2, static_cast<uint32_t>(count));
  std::memset(node + 12, 0, kNodeSize - 12);
  StoreLE16(node + 12, static_cast<uint32_t>(kLeafArea - used));
  w.Write(node);
  int end = kNodeSize;
  prev_trail = 0;
  for (int i = 0; i < count; ++i) {
    const uint8_t* key = keys + i * key_length;
    int trail = TrailingCount(key, key_length, pad);
    int dup = i == 0 ? 0 : DuplicateCount(key, key - key_length, key_length, trail, prev_trail);
    int frag = key_length - dup - trail;
    end -= frag;
    std::memcpy(node + end, key + dup, static_cast<size_t>(frag));
    uint64_t counts = (static_cast<uint64_t>(trail & w.trail_mask) << w.dup_bits) |
                      static_cast<uint64_t>(dup & w.dup_mask);
    uint64_t field = counts << w.record_bits | records[i];
    uint8_t* f = node + kLeafHeader + i * w.bytes;
    for (int b = 0; b < w.bytes; ++b) f[b] = static_cast<uint8_t>(field >> (8 * b));
    prev_trail = trail;
  }
  return true;
}

namespace {

bool DecodeLeaf(const uint8_t* bytes, const NodeShape& shape, Node* out) {
  const int kl = shape.key_length;
  if (!out->widths.Read(bytes)) return false;
  const LeafWidths& w = out->widths;
  int count = out->count;
  if (count * w.bytes > kLeafArea) return false;
  int floor = kLeafHeader + count * w.bytes;
  int end = kNodeSize;
  out->free_bytes = LoadLE16(bytes + 12);
  for (int i = 0; i < count; ++i) {
    uint64_t field = ReadField(bytes + kLeafHeader + i * w.bytes, w.bytes);
    uint32_t record = static_cast<uint32_t>(field) & w.record_mask;
    int dup = static_cast<int>((field >> w.record_bits) & w.dup_mask);
    int trail = static_cast<int>((field >> (w.record_bits + w.dup_bits)) & w.trail_mask);
    if (trail > kl || dup > kl - trail || (i == 0 && dup != 0)) return false;
    int frag = kl - dup - trail;
    end -= frag;
    if (end < floor) return false;
    uint8_t* key = out->keys + i * kl;
    if (dup > 0) std::memcpy(key, key - kl, static_cast<size_t>(dup));
    std::memcpy(key + dup, bytes + end, static_cast<size_t>(frag));
    std::memset(key + dup + frag, shape.pad, static_cast<size_t>(trail));
    out->records[i] = record;
    out->children[i] = 0;
  }
  out->used_bytes = static_cast<uint16_t>(floor - kLeafHeader + (kNodeSize - end));
  return true;
}

}  // namespace

bool DecodeNode(const uint8_t* bytes, const NodeShape& shape, Node* out) {
  const int kl = shape.key_length;
  out->offset = 0;
  out->attributes = LoadLE16(bytes);
  out->count = LoadLE16(bytes + 2);
  out->left = LoadLE32(bytes + 4);
  out->right = LoadLE32(bytes + 8);
  out->free_bytes = 0;
  out->used_bytes = 0;
  bool leaf = out->IsLeaf();
  if (shape.compact && leaf) return DecodeLeaf(bytes, shape, out);
  int entry = kl + (shape.compact ? 8 : 4);
  if (out->count * entry > kEntryArea) return false;
  if (!leaf && out->count == 0) return false;
  for (int i = 0; i < out->count; ++i) {
    const uint8_t* e = bytes + 12 + i * entry;
    std::memcpy(out->keys + i * kl, e, static_cast<size_t>(kl));
    if (shape.compact) {
      out->records[i] = LoadBE32(e + kl);
      out->children[i] = LoadBE32(e + kl + 4);
    } else if (leaf) {
      out->records[i] = LoadBE32(e + kl);
      out->children[i] = 0;
    } else {
      out->records[i] = 0;
      out->children[i] = LoadBE32(e + kl);
    }
  }
  return true;
}

}  // namespace kestrel::foxpro
