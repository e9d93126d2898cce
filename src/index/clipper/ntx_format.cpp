// Decoding and encoding of the .NTX header (layout in ntx_format.h).
#include "index/clipper/ntx_format.h"

#include "kestrel/kestrel_frame.h"

namespace kestrel::ntx {

void Header::Read(std::span<const uint8_t, kHeaderReadSize> bytes) {
  const uint8_t* h = bytes.data();
  signature = LoadLE16(h + kHdrSignature);
  version = LoadLE16(h + kHdrVersion);
  root = LoadLE32(h + kHdrRoot);
  free_head = LoadLE32(h + kHdrFreeList);
  item_size = LoadLE16(h + kHdrItemSize);
  key_length = LoadLE16(h + kHdrKeyLength);
  decimals = LoadLE16(h + kHdrDecimals);
  max_items = LoadLE16(h + kHdrMaxItems);
  half_page = LoadLE16(h + kHdrHalfPage);
  unique = h[kHdrUnique];
  descending = h[kHdrDescending];
  binary_type = LoadLE16(h + kHdrBinaryType);
  const char* stored = reinterpret_cast<const char*>(h + kHdrExpression);
  size_t length = strnlen(stored, kExpressionSize);
  expression_terminated = length < static_cast<size_t>(kExpressionSize);
  if (!expression_terminated) length = kExpressionSize - 1;
  std::memcpy(expression, stored, length);
  std::memset(expression + length, 0, kExpressionSize - length);
}

int32_t Header::DecodeFrom(std::span<const uint8_t> bytes, uint64_t file_length) {
  if (bytes.size() < kHeaderReadSize) return DB_ERR_READ;
  Read(bytes.first<kHeaderReadSize>());
  if (key_length < 1 || key_length > kMaxKeyLength) return DB_ERR_KEY_LENGTH;
  if (item_size != key_length + kItemOverhead) return DB_ERR_ITEM_LENGTH;
  if (!ValidPageOffset(root, file_length)) return DB_ERR_ROOT_PAGE;
  if (max_items != MaxItemsFor(key_length)) return DB_ERR_MAX_KEYS;
  if (half_page != max_items / 2) return DB_ERR_MIN_KEYS;
  if (!expression_terminated) return DB_ERR_BAD_EXPRESSION;
  return 0;
}

void Header::EncodeTo(std::span<uint8_t, kPageSize> bytes) const {
  uint8_t* h = bytes.data();
  std::memset(h, 0, kPageSize);
  StoreLE16(h + kHdrSignature, signature);
  StoreLE16(h + kHdrVersion, version);
  StoreLE32(h + kHdrRoot, root);
  StoreLE32(h + kHdrFreeList, free_head);
  StoreLE16(h + kHdrItemSize, item_size);
  StoreLE16(h + kHdrKeyLength, key_length);
  StoreLE16(h + kHdrDecimals, decimals);
  StoreLE16(h + kHdrMaxItems, max_items);
  StoreLE16(h + kHdrHalfPage, half_page);
  std::memcpy(h + kHdrExpression, expression, strnlen(expression, kExpressionSize - 1));
  h[kHdrUnique] = unique;
  h[kHdrDescending] = descending;
  StoreLE16(h + kHdrBinaryType, binary_type);
}

}  // namespace kestrel::ntx
