// Shared pieces of the table cross-checks: running a checker script and
// parsing its JSON, reading a table through the engine into the same
// normalised JSON form, and comparing two such dumps.
//
// Normalised form (what every checker script prints):
//   {"fields": [{"name","type","length","decimals"}...],
//    "records": [{"recno": n|null, "deleted": b, "values": {NAME: value}}...],
//    "physical_order": b}
// Values: C text with trailing blanks and NULs removed (each byte as the code
// point of the same value), N/F numbers or null, D "YYYYMMDD" or null, L
// true/false/null, M memo text (or, from the engine, the block number).
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "kestrel/kestrel.h"
#include "support/interop.h"

namespace kestrel::test {

using Json = nlohmann::json;

inline std::string Latin1(const std::string& bytes) {
  std::string out;
  for (unsigned char c : bytes) {
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

inline std::string RStrip(std::string s, const char* chars = " ") {
  size_t end = s.find_last_not_of(chars);
  s.erase(end == std::string::npos ? 0 : end + 1);
  return s;
}

// Runs a checker script; fails the test (and returns null) when it does not
// exit 0 or prints something that is not JSON.
inline Json RunChecker(const std::vector<std::string>& argv) {
  ProcessResult r = RunProcess(argv);
  std::string command;
  for (const auto& a : argv) command += a + " ";
  if (r.exit_code != 0) {
    ADD_FAILURE() << command << "exited " << r.exit_code << "\n" << r.err;
    return Json();
  }
  Json j = Json::parse(r.out, nullptr, /*allow_exceptions=*/false);
  if (j.is_discarded()) ADD_FAILURE() << command << "printed no JSON:\n" << r.out.substr(0, 500);
  return j;
}

inline std::vector<std::string> ReaderCommand(Checker checker, const std::string& table) {
  switch (checker) {
    case Checker::kDbfread:
      return {kPython, InteropScript("read_dbfread.py"), table};
    case Checker::kPythonDbf:
      return {kPython, InteropScript("read_pydbf.py"), table};
    case Checker::kPerlXBase:
      return {kPerl, InteropScript("read_xbase.pl"), table};
    case Checker::kXbase64:
      break;  // a reader of index files only
  }
  return {};
}

// Reads every record of a table through the engine into the normalised form.
// Memo fields give their block number. Returns null JSON (after a test
// failure) when the table does not open.  `raw` keeps what is stored: the
// record image ("raw"), C fields with their blanks, blank N, D and L fields
// as 0, "" and false, and memo fields' 10 stored bytes.
inline Json KestrelDump(const std::string& path, int dialect, bool raw = false) {
  int32_t handle = -1;
  int32_t rc = DBOpenFile(&handle, path.c_str(), dialect | DB_OPEN_READONLY);
  if (rc < 0) {
    ADD_FAILURE() << "DBOpenFile(" << path << ", " << dialect << ") = " << rc;
    return Json();
  }
  DBSetDefaultDateStyle(DB_DATE_DBASE);
  DBRECORDINFO info{};
  EXPECT_GE(DBGetRecordInfo(handle, &info), 0);
  std::vector<DBFIELD> fields(static_cast<size_t>(info.field_count));
  int32_t widest = 0;
  if (!fields.empty()) {
    EXPECT_GE(DBGetFileDescription(handle, &widest, fields.data()), 0);
  }
  Json out;
  out["physical_order"] = true;
  out["fields"] = Json::array();
  for (const auto& f : fields) {
    const char type = static_cast<char>(f.type & 0xFF);
    out["fields"].push_back({{"name", Latin1(f.name)},
                             {"type", std::string(1, type)},
                             {"length", f.length},
                             {"decimals", type == 'C' ? 0 : f.decimals}});
  }
  uint32_t count = 0;
  EXPECT_GE(DBGetRecordCount(handle, &count), 0);
  out["records"] = Json::array();
  for (int32_t recno = 1; recno <= static_cast<int32_t>(count); ++recno) {
    rc = DBGetRecord(handle, recno);
    if (rc < 0) {
      ADD_FAILURE() << path << ": DBGetRecord(" << recno << ") = " << rc;
      break;
    }
    Json values = Json::object();
    for (size_t i = 0; i < fields.size(); ++i) {
      const auto& f = fields[i];
      const int index = static_cast<int>(i);
      Json v;
      switch (f.type & 0xFF) {
        case 'C': {
          std::string text(static_cast<size_t>(f.length) + 1, '\0');
          EXPECT_GE(DBGetFieldData(handle, index, text.data()), 0);
          text.resize(static_cast<size_t>(f.length));
          v = Latin1(raw ? text : RStrip(text, std::string(" \0", 2).c_str()));
          break;
        }
        case 'N':
        case 'F': {
          double d = 0;
          int32_t frc = DBGetFieldData(handle, index, &d);
          EXPECT_GE(frc, 0);
          if (raw || frc != DB_WARN_FIELD_EMPTY) v = d;
          break;
        }
        case 'D': {
          char text[DB_DATE_STR_SIZE + 1] = {};
          int32_t frc = DBGetFieldData(handle, index, text);
          EXPECT_GE(frc, 0) << f.name << " of record " << recno;
          if (frc != DB_WARN_FIELD_EMPTY && frc >= 0) v = std::string(text);
          if (raw && frc == DB_WARN_FIELD_EMPTY) v = "";
          break;
        }
        case 'L': {
          uint8_t flag = 2;
          int32_t frc = DBGetFieldData(handle, index, &flag);
          EXPECT_GE(frc, 0);
          if (raw || (frc != DB_WARN_FIELD_EMPTY && flag <= 1)) v = flag == 1;
          break;
        }
        case 'M': {
          if (raw) {
            std::string stored(11, '\0');
            EXPECT_GE(DBGetStrField(handle, index, stored.data()), 0);
            v = stored.substr(0, 10);
            break;
          }
          uint32_t block = 0;
          int32_t frc = DBGetFieldData(handle, index, &block);
          EXPECT_GE(frc, 0);
          if (frc != DB_WARN_FIELD_EMPTY) v = block;
          break;
        }
        default:
          break;
      }
      values[Latin1(f.name)] = v;
    }
    out["records"].push_back(
        {{"recno", recno}, {"deleted", rc == DB_WARN_RECORD_DELETED}, {"values", values}});
    if (raw) {
      const auto* image = static_cast<const char*>(info.record_buffer);
      out["records"].back()["raw"] = Latin1(std::string(image, info.record_length));
    }
  }
  EXPECT_EQ(DBCloseFile(handle), 0);
  return out;
}

// Compares one value; numbers within a relative 1e-9, everything else exactly.
inline bool SameValue(const Json& a, const Json& b) {
  if (a.is_number() && b.is_number()) {
    double x = a.get<double>();
    double y = b.get<double>();
    return std::fabs(x - y) <= 1e-9 * std::max(1.0, std::fabs(x));
  }
  return a == b;
}

// Compares the records of `actual` (a checker's dump) with `expected` (the
// model). When the checker does not give file order (dbfread), its active
// records and its deleted records are each compared in order. `skip` names
// fields left out of the comparison.
inline void ExpectSameRecords(const Json& expected, const Json& actual, const std::string& what,
                              const std::vector<std::string>& skip = {}) {
  ASSERT_TRUE(actual.contains("records")) << what;
  std::vector<const Json*> want;
  for (const auto& r : expected["records"]) want.push_back(&r);
  if (!actual.value("physical_order", true)) {
    std::stable_partition(want.begin(), want.end(),
                          [](const Json* r) { return !(*r)["deleted"].get<bool>(); });
  }
  const Json& got = actual["records"];
  ASSERT_EQ(got.size(), want.size()) << what << ": record count";
  for (size_t i = 0; i < want.size(); ++i) {
    const Json& w = *want[i];
    const Json& g = got[i];
    EXPECT_EQ(g["deleted"], w["deleted"]) << what << ": deleted flag of record " << w["recno"];
    for (auto it = w["values"].begin(); it != w["values"].end(); ++it) {
      if (std::find(skip.begin(), skip.end(), it.key()) != skip.end()) continue;
      ASSERT_TRUE(g["values"].contains(it.key())) << what << ": field " << it.key() << " missing";
      EXPECT_TRUE(SameValue(it.value(), g["values"][it.key()]))
          << what << ": record " << w["recno"] << " field " << it.key() << ": expected "
          << it.value().dump() << ", got " << g["values"][it.key()].dump();
    }
  }
}

inline void ExpectSameFields(const Json& expected, const Json& actual, const std::string& what) {
  ASSERT_TRUE(actual.contains("fields")) << what;
  EXPECT_EQ(actual["fields"], expected["fields"]) << what << ": field definitions";
}

}  // namespace kestrel::test
