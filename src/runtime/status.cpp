// Status codes, their messages, and the failure convention (status.h).
//
// The error log: while logging is on, every logged failure appends one line
// "module path<TAB>line<TAB>code<LF>" to the log file, which is opened in
// append mode for that one line and closed again, so nothing is lost when
// the process dies and the file is never held open.
#include "runtime/status.h"

#include <cstdio>

#include "runtime/library_state.h"

namespace kestrel {
namespace {

struct Message {
  int32_t code;
  const char* text;
};

constexpr Message kMessages[] = {
    {0, "No error or warnings"},
    {201, "WARNING - record read is marked deleted"},
    {202, "WARNING - file is empty"},
    {203, "WARNING - no more keys"},
    {204, "WARNING - could not find key in index file"},
    {205, "WARNING - data field truncated"},
    {206, "WARNING - numeric field rounded"},
    {207, "WARNING - file length is incorrect"},
    {208, "WARNING - file I/O not buffered"},
    {209, "WARNING - partial memory allocation"},
    {210, "WARNING - function not supported"},
    {211, "WARNING - object already exists"},
    {212, "WARNING - field is empty"},
    {-201, "ERROR - file write failure"},
    {-202, "ERROR - file read failure"},
    {-203, "ERROR - memory allocation error"},
    {-204, "ERROR - file pointer reposition failed"},
    {-205, "ERROR - file not found"},
    {-206, "ERROR - file corrupted"},
    {-207, "ERROR - bad user specified key expression"},
    {-208, "ERROR - no handles available"},
    {-209, "ERROR - no index pages loaded"},
    {-210, "ERROR - index page was not loaded"},
    {-211, "ERROR - file close failure"},
    {-212, "ERROR - invalid command"},
    {-213, "ERROR - invalid handle number"},
    {-214, "ERROR - invalid filename"},
    {-215, "ERROR - invalid date"},
    {-216, "ERROR - invalid time"},
    {-217, "ERROR - file not in memo format"},
    {-218, "ERROR - invalid dBaseIII version"},
    {-219, "ERROR - file header length error"},
    {-220, "ERROR - last file change date in error"},
    {-221, "ERROR - parameter address NULL"},
    {-222, "ERROR - invalid key type"},
    {-223, "ERROR - invalid key length"},
    {-224, "ERROR - item length incorrect"},
    {-225, "ERROR - invalid root page"},
    {-226, "ERROR - bad maximum number of keys per page"},
    {-227, "ERROR - invalid number of fields"},
    {-228, "ERROR - field name invalid"},
    {-229, "ERROR - bad field length"},
    {-230, "ERROR - decimal places parameter invalid"},
    {-231, "ERROR - invalid field type"},
    {-232, "ERROR - invalid record length"},
    {-233, "ERROR - bad data"},
    {-234, "ERROR - memo soft line length invalid"},
    {-235, "ERROR - MDX flag in DBF file invalid"},
    {-236, "ERROR - file open for reading only"},
    {-237, "ERROR - file locking violation"},
    {-238, "ERROR - sharing buffer overflow"},
    {-239, "ERROR - path not found"},
    {-240, "ERROR - access to file denied"},
    {-241, "ERROR - invalid access code"},
    {-242, "ERROR - file must be locked first"},
    {-243, "ERROR - diskette changed"},
    {-244, "ERROR - bad minimum number of keys per page"},
    {-245, "ERROR - some files remain open"},
    {-246, "ERROR - could not open the file"},
    {-247, "ERROR - flush to disk failure"},
    {-248, "ERROR - invalid tag handle"},
    {-249, "ERROR - invalid page size in blocks"},
    {-250, "ERROR - invalid tag name"},
    {-251, "ERROR - invalid page offset adder"},
    {-252, "ERROR - invalid maximum number of tag table elements"},
    {-253, "ERROR - bad tag table element length"},
    {-254, "ERROR - invalid tag count"},
    {-255, "ERROR - unknown key format switches"},
    {-256, "ERROR - unknown switch error"},
    {-257, "ERROR - tag in use"},
    {-258, "ERROR - Windows GlobalLock error"},
    {-259, "ERROR - Windows Task lookup Failed"},
    {-260, "ERROR - internal lock buffer overflow"},
    {-261, "ERROR - internal lock buffer underflow"},
};

constexpr const char kUnknown[] = "Unknown error or warning code";

}  // namespace

const char* MessageFor(int32_t code) {
  for (const Message& m : kMessages) {
    if (m.code == code) return m.text;
  }
  return kUnknown;
}

int32_t ErrorCode() { return State().error_code; }

int32_t Record(int32_t code) {
  State().error_code = code;
  return code;
}

void LogError(ModulePath module, int line, int32_t code) {
  LibraryState& s = State();
  if (s.log_switch == 0) return;
  char name[kLogNameSize + 1];
  for (int i = 0; i < kLogNameSize; ++i) name[i] = s.log_name[i];
  name[kLogNameSize] = '\0';
  std::FILE* f = std::fopen(name, "a+");
  if (!f) return;  // a log that cannot be opened is silently skipped
  char record[128];
  int n = std::snprintf(record, sizeof record, "%s\t%d\t%d\n", module.path ? module.path : "", line,
                        static_cast<int>(code));
  if (n > 0) std::fwrite(record, 1, n < static_cast<int>(sizeof record) ? n : sizeof record - 1, f);
  std::fclose(f);
}

int32_t Fail(ModulePath module, int line, int32_t code) {
  Record(code);
  LogError(module, line, code);
  return code;
}

int32_t Pass(ModulePath module, int line, int32_t code) { return Fail(module, line, code); }

}  // namespace kestrel
