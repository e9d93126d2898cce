// Helpers shared by the memo tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>

#include "kestrel/kestrel.h"
#include "support/temp_dir.h"

namespace kestrel::test {

// Starts and stops the library around each test.
class MemoTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(DBInitialize(60, 0), 0); }
  void TearDown() override { DBTerminate(); }
  TempDir dir_;
};

// Text of the given length made of letters, blanks and CR LF pairs: bytes
// that every memo layout stores unchanged.
inline std::string MemoText(std::mt19937& rng, size_t length) {
  static const char kAlphabet[] = "abcdefghijklmnopqrstuvwxyz ABCDEFGHIJ0123456789.,;";
  std::string s;
  s.reserve(length);
  std::uniform_int_distribution<int> pick(0, sizeof kAlphabet - 2);
  std::uniform_int_distribution<int> line(0, 60);
  while (s.size() < length) {
    if (s.size() + 2 <= length && line(rng) == 0) {
      s += "\r\n";
    } else {
      s += kAlphabet[pick(rng)];
    }
  }
  return s;
}

// Reads a DBT memo as a string; the status goes to *rc.
inline std::string GetDbt(int32_t handle, uint32_t block, int32_t* rc, int32_t option = 0) {
  char* text = nullptr;
  *rc = DBxbGetMemoRecord(handle, block, &text, option);
  std::string s = text ? std::string(text) : std::string();
  if (text) DBFreeMemory(text);
  return s;
}

// Reads a whole FPT memo (its length from DBfpGetMemoType).
inline std::string GetFpt(int32_t handle, uint32_t block, int32_t* rc) {
  uint32_t length = 0;
  int32_t type = 0;
  *rc = DBfpGetMemoType(handle, block, &length, &type);
  if (*rc < 0) return {};
  char* data = nullptr;
  *rc = DBfpGetMemoRecord(handle, block, &data, length, 0);
  if (*rc < 0 || !data) return {};
  return std::string(data, length);
}

}  // namespace kestrel::test
