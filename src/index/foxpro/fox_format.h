// The node layouts of FoxPro indexes: the uncompressed IDX node, the compact
// interior node and the compact leaf with its bit-packed entry codec, and the
// headers of both index families.
//
// Every node is 512 bytes at a multiple of 512.  Node headers are
// little-endian; record numbers and child offsets inside entries are
// big-endian so that they order byte by byte.
//
// A compact leaf stores each entry as an information field (record number,
// duplicate count, trailing count, bit-packed little-endian) from offset 24
// and a key fragment packed from the end of the node backwards: the first
// `dup` bytes of the key repeat the previous key of the leaf, the last
// `trail` bytes are pad characters, the fragment is what lies between.
// Every leaf carries its own field widths, so a leaf holding large record
// numbers may use wider fields than its neighbours.
#pragma once

#include <cstdint>

#include "util/coding.h"

namespace kestrel::foxpro {

inline constexpr uint32_t kNodeSize = 512;
inline constexpr uint32_t kCompactHeaderSize = 1024;
inline constexpr int kLeafHeader = 24;
inline constexpr int kLeafArea = 488;        // bytes 24..511 of a compact leaf
inline constexpr int kEntryArea = 500;       // bytes 12..511 of other nodes
inline constexpr int kMaxKeyLength = 254;
inline constexpr int kMaxExpression = 220;
// The most entries any node can hold (a compact leaf of 1-byte fields, as
// some writers use for tiny tables).
inline constexpr int kMaxNodeEntries = kLeafArea;

inline constexpr uint16_t kAttrRoot = 1;
inline constexpr uint16_t kAttrLeaf = 2;

// Index options byte of a header.
inline constexpr uint8_t kOptUnique = 0x01;
inline constexpr uint8_t kOptFor = 0x08;
inline constexpr uint8_t kOptCompact = 0x20;
inline constexpr uint8_t kOptCompound = 0x40;
inline constexpr uint8_t kOptDirectory = 0x80;

// The field widths of one compact leaf (offsets 14..23).
struct LeafWidths {
  uint32_t record_mask = 0;
  uint8_t dup_mask = 0;
  uint8_t trail_mask = 0;
  uint8_t record_bits = 0;
  uint8_t dup_bits = 0;
  uint8_t trail_bits = 0;
  uint8_t bytes = 0;  // bytes per information field

  // Reads and checks the widths of a leaf: 2 to 6 bytes per field, the three
  // widths inside the field, masks no wider than their widths and the record
  // mask no wider than 32 bits.
  bool Read(const uint8_t* node);
  void Write(uint8_t* node) const;
  // The widths a new leaf of a tag with this key length starts from.
  static LeafWidths Base(int key_length, bool directory);
  // The narrowest widths, from the base ones up by a byte at a time, whose
  // record field holds max_record.
  static LeafWidths For(int key_length, bool directory, uint32_t max_record);
};

// One node decoded into fixed-size entries: keys of key_length bytes one
// after another, the record number of each entry and, in interior nodes, the
// child offset.
struct Node {
  uint32_t offset = 0;  // 0: holds nothing
  uint16_t attributes = 0;
  uint16_t count = 0;
  uint32_t left = 0;
  uint32_t right = 0;
  uint16_t free_bytes = 0;  // compact leaf: the stored free-space count
  uint16_t used_bytes = 0;  // compact leaf: fields and fragments decoded
  LeafWidths widths;        // compact leaf
  uint8_t* keys = nullptr;  // kMaxNodeEntries * key_length bytes
  uint32_t records[kMaxNodeEntries];
  uint32_t children[kMaxNodeEntries];

  bool IsLeaf() const { return (attributes & kAttrLeaf) != 0; }
  const uint8_t* Key(int i, int key_length) const { return keys + i * key_length; }
};

// How a tag's nodes are laid out.
struct NodeShape {
  int key_length = 0;
  bool compact = false;
  uint8_t pad = 0;  // character that trailing counts stand for
};

// Decodes a node read from the file into out (whose keys buffer is
// allocated); false when the node is not a well-formed node of the shape:
// counts that do not fit, widths outside the field, duplicate or trailing
// counts larger than the key, fragments reaching into the field area.
bool DecodeNode(const uint8_t* bytes, const NodeShape& shape, Node* out);

// The duplicate count of key after prev as a compact leaf stores it.
int DuplicateCount(const uint8_t* key, const uint8_t* prev, int key_length, int trail,
                   int prev_trail);
// The number of pad characters ending key.
int TrailingCount(const uint8_t* key, int key_length, uint8_t pad);

// Encodes count entries (keys, records) as the key area of a compact leaf
// with the given widths: key count, fields, fragments, free-space count,
// zeroed gap.  Attributes and siblings are left alone.  False (node
// unchanged) when the entries or a record number do not fit.
bool EncodeLeaf(const uint8_t* keys, const uint32_t* records, int count, int key_length,
                uint8_t pad, const LeafWidths& widths, uint8_t* node);

}  // namespace kestrel::foxpro
