// kestrel locks TABLE: which lock regions of a shared table other processes
// hold right now.
//
// The regions are those the library (and each dialect's own programs) lock:
// the header, the file and each record, computed from the table's header.
// Each is probed with fcntl F_GETLK on a read-only descriptor, which takes
// nothing; the kernel answers with the first lock that overlaps the region
// (its own bounds, which may be wider or narrower) and, for a classic record
// lock, the holder's pid.  Open-file-description locks (what the library
// takes) carry no pid; their holder is looked up in /proc/<pid>/fdinfo where
// the lock is listed under the descriptor that took it.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "command.h"
#include "kestrel/kestrel.h"
#include "table_text.h"

namespace kestrel::tool {
namespace {

struct Region {
  std::string name;
  uint64_t offset;
  uint64_t length;
};

// What the 32-byte header says (little-endian fields).
struct Header {
  uint8_t version = 0;
  uint32_t count = 0;
  uint32_t header_length = 0;
  uint32_t record_length = 0;
  uint8_t production = 0;
};

std::optional<Header> ReadHeader(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  unsigned char b[32];
  if (!in.read(reinterpret_cast<char*>(b), sizeof b)) return std::nullopt;
  Header h;
  h.version = b[0];
  h.count = b[4] | b[5] << 8 | b[6] << 16 | static_cast<uint32_t>(b[7]) << 24;
  h.header_length = b[8] | b[9] << 8;
  h.record_length = b[10] | b[11] << 8;
  h.production = b[28];
  return h;
}

// The dialect families' regions (r record number, H header length, L record
// length, C record count, P production index flag).
Region RecordRegion(int dialect, const Header& h, uint32_t r) {
  std::string name = "record " + std::to_string(r);
  uint64_t at = (h.header_length + static_cast<uint64_t>(r - 1) * h.record_length) & 0xFFFFFFFFu;
  switch (dialect) {
    case 2:
      return {name, (r + 1u) ^ 0xEFFFFFFFu, 1};
    case 3:
    case 4:
    case 8:
      if (h.production) return {name, 0x7FFFFFFEu - r, 1};
      return {name, at | 0x40000000u, 1};
    case 5:
    case 6:
      return {name, 1000000000ull + r, 1};
    default:
      return {name, at, h.record_length};
  }
}

std::vector<Region> TableRegions(int dialect, const Header& h) {
  switch (dialect) {
    case 2:
      return {{"header", 0xEFFFFFFE, 1}, {"file", 0xEFFFFFFE, 2}};
    case 3:
    case 4:
    case 8:
      if (h.production) {
        return {{"header", 0x7FFFFFFE, 1},
                {"file", 2133447831ull - h.count, h.count + 14035816ull}};
      }
      return {{"header and file", 0x40000000, 1}};
    case 5:
    case 6:
      return {{"header", 1000000000, 1}, {"file", 1000000000, 1000000000}};
    default:
      return {{"header", 4, 4}, {"file", 0, 0x7FFFFFFF}};
  }
}

// One lock line of /proc/<pid>/fdinfo/<fd>: its owner and bounds.
struct HeldLock {
  int pid;
  uint64_t start;
  uint64_t end;  // inclusive; UINT64_MAX for "EOF"
};

// Every lock on this file (device, inode) that /proc lists under a process's
// descriptor; processes this user may not look into are left out.
std::vector<HeldLock> LocksInProc(dev_t device, ino_t inode) {
  std::vector<HeldLock> out;
  char wanted[64];
  std::snprintf(wanted, sizeof wanted, "%02x:%02x:%lu", major(device), minor(device),
                static_cast<unsigned long>(inode));
  DIR* proc = ::opendir("/proc");
  if (!proc) return out;
  while (dirent* p = ::readdir(proc)) {
    int pid = std::atoi(p->d_name);
    if (pid <= 0) continue;
    std::string dir = std::string("/proc/") + p->d_name + "/fdinfo";
    DIR* fds = ::opendir(dir.c_str());
    if (!fds) continue;
    while (dirent* f = ::readdir(fds)) {
      if (f->d_name[0] == '.') continue;
      std::ifstream info(dir + "/" + f->d_name);
      std::string line;
      while (std::getline(info, line)) {
        if (line.rfind("lock:", 0) != 0 || line.find(wanted) == std::string::npos) continue;
        // "lock:\t1: OFDLCK ADVISORY  WRITE -1 fe:00:123 1000000005 1000000005"
        std::istringstream words(line.substr(line.find(wanted) + std::strlen(wanted)));
        std::string start, end;
        words >> start >> end;
        HeldLock lock{pid, std::strtoull(start.c_str(), nullptr, 10), UINT64_MAX};
        if (end != "EOF") lock.end = std::strtoull(end.c_str(), nullptr, 10);
        out.push_back(lock);
      }
    }
    ::closedir(fds);
  }
  ::closedir(proc);
  return out;
}

struct Probe {
  bool held = false;
  bool write = false;
  uint64_t start = 0;
  uint64_t length = 0;  // 0: to the end of the file and beyond
  int pid = 0;
};

Probe ProbeRegion(int fd, const Region& region) {
  Probe p;
  if (region.length == 0) return p;
  struct flock fl {};
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  fl.l_start = static_cast<off_t>(region.offset);
  fl.l_len = static_cast<off_t>(region.length);
  if (::fcntl(fd, F_GETLK, &fl) != 0 || fl.l_type == F_UNLCK) return p;
  p.held = true;
  p.write = fl.l_type == F_WRLCK;
  p.start = static_cast<uint64_t>(fl.l_start);
  p.length = static_cast<uint64_t>(fl.l_len);
  p.pid = fl.l_pid;
  return p;
}

// Parses "N..M" (or "N") into a record range.
bool ParseRange(const std::string& text, uint32_t* first, uint32_t* last) {
  size_t dots = text.find("..");
  try {
    size_t used = 0;
    unsigned long a = std::stoul(text.substr(0, dots), &used);
    if (used != (dots == std::string::npos ? text.size() : dots)) return false;
    unsigned long b = a;
    if (dots != std::string::npos) {
      std::string rest = text.substr(dots + 2);
      b = std::stoul(rest, &used);
      if (used != rest.size()) return false;
    }
    if (a < 1 || b < a || b > 0x7FFFFFFFul) return false;
    *first = static_cast<uint32_t>(a);
    *last = static_cast<uint32_t>(b);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

void RunLocks(const std::string& path, const DialectOption& option, const std::string& records) {
  // A bad range is a bad command line, told before any file is touched.
  uint32_t first = 1, last = 0;
  if (!records.empty() && !ParseRange(records, &first, &last)) {
    FailUsage("--records wants N..M with 1 <= N <= M");
  }
  auto header = ReadHeader(path);
  if (!header) {
    if (!OpenFailureReason(path, DB_OPEN_READONLY | DB_OPEN_SHARED).empty()) {
      FailToOpen(path, DB_OPEN_READONLY | DB_OPEN_SHARED, DB_ERR_OPEN);
    }
    FailWithStatus("cannot read the header of " + path, DB_ERR_READ);
  }
  int dialect = option.value >= 0 ? option.value : GuessDialect(header->version);
  if (dialect == 0) dialect = 1;
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) FailToOpen(path, DB_OPEN_READONLY | DB_OPEN_SHARED, DB_ERR_OPEN);
  struct stat st {};
  ::fstat(fd, &st);
  const uint32_t in_file = RecordsInFile(static_cast<uint64_t>(st.st_size), header->header_length,
                                         header->record_length);
  if (dialect == 5 || dialect == 6) {
    // These programs count the whole records in the file.
    header->count = in_file;
  } else if (header->count > in_file) {
    // Probing records the file does not hold would take minutes for a
    // damaged count near 2^32 and tell nothing.
    Warn(path + ": the header claims " + std::to_string(header->count) +
         " records, the file holds " + std::to_string(in_file) + "; probing those");
    header->count = in_file;
  }
  if (records.empty()) last = header->count;

  std::vector<Region> regions = TableRegions(dialect, *header);
  for (uint64_t r = first; r <= last; ++r) {
    regions.push_back(RecordRegion(dialect, *header, static_cast<uint32_t>(r)));
  }
  std::cout << path << ": dialect " << dialect << ", " << header->count << " records, header "
            << header->header_length << " bytes, records " << header->record_length << " bytes\n";
  std::optional<std::vector<HeldLock>> in_proc;
  size_t held = 0, inside = 0;
  std::set<std::pair<uint64_t, uint64_t>> shown;
  for (const Region& region : regions) {
    Probe p = ProbeRegion(fd, region);
    if (!p.held) continue;
    ++held;
    // A region that overlaps a lock already shown (a record inside a file
    // lock, the file region around a header lock) is only counted.
    bool exact = p.start == region.offset && p.length == region.length;
    bool first = shown.insert({p.start, p.length}).second;
    if (!exact && !first) {
      ++inside;
      continue;
    }
    std::string owner;
    if (p.pid > 0) {
      owner = "pid " + std::to_string(p.pid);
    } else {
      if (!in_proc) in_proc = LocksInProc(st.st_dev, st.st_ino);
      uint64_t end = p.length == 0 ? UINT64_MAX : p.start + p.length - 1;
      for (const HeldLock& lock : *in_proc) {
        if (lock.start == p.start && lock.end == end) {
          owner += (owner.empty() ? "pid " : ", pid ") + std::to_string(lock.pid);
        }
      }
      if (owner.empty()) owner = "pid not known";
    }
    std::cout << "  " << region.name << " (" << region.offset << " +" << region.length
              << "): held, " << (p.write ? "write" : "read") << " lock " << p.start << " +"
              << p.length << " by " << owner << "\n";
  }
  ::close(fd);
  if (inside > 0) {
    std::cout << "  " << inside << " more regions overlap locks shown above\n";
  }
  if (held == 0) {
    std::cout << "  no region is held (" << regions.size() << " probed)\n";
  } else {
    std::cout << "  " << held << " of " << regions.size() << " regions held\n";
  }
}

CommandRegistration reg{
    "locks", [](CLI::App& app) {
      auto* cmd = app.add_subcommand(
          "locks", "Show which lock regions of a shared table other processes hold now");
      auto path = std::make_shared<std::string>();
      auto dialect = std::make_shared<DialectOption>();
      auto records = std::make_shared<std::string>();
      cmd->add_option("TABLE", *path, "The .DBF file")->required();
      AddDialectOption(cmd, dialect.get());
      cmd->add_option("--records", *records, "Records to probe, N..M (default: all)");
      cmd->callback([path, dialect, records] { RunLocks(*path, *dialect, *records); });
    }};

}  // namespace
}  // namespace kestrel::tool
