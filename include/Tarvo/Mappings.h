// Memory maps of processes, read from /proc/<pid>/maps.
//
// MappingInfo is one line of a maps file, MappingInfos the lines of one process in file order
// (ascending addresses), and PidMappings reads a process's map and keeps the last result per
// pid. typenameFromVptr (Tarvo/UtilNet.h) uses them to translate addresses between two
// processes that map the same object file.
#pragma once

#include <cstdint>
#include <istream>
#include <ostream>
#include <string>
#include <vector>

namespace Tarvo {

// One mapping. Addresses, file offset and inode are as wide as a pointer (64-bit on x86-64).
// A default-constructed MappingInfo is all zero with empty strings; lookups return one to
// say "no such mapping".
struct MappingInfo {
  // An address or a file offset.
  using Word = std::uintptr_t;

  Word start = 0;      // first address of the mapping
  Word end = 0;        // first address past it
  std::string perms;   // the four permission characters, e.g. "r-xp"
  Word offset = 0;     // offset of `start` in the mapped file
  uint32_t major = 0;  // device numbers of the mapped file
  uint32_t minor = 0;  // (major and minor)
  Word inode = 0;      // inode of the mapped file, 0 for anonymous mappings
  std::string path;    // empty for anonymous mappings; pseudo names such as "[heap]" kept as is

  // Parses one maps line ("start-end perms offset major:minor inode [path]", numbers in
  // hexadecimal except the decimal inode). Blanks before the path are skipped, blanks inside
  // it kept, a trailing newline dropped. Returns false, leaving `out` unspecified, when the
  // fixed part does not parse.
  static bool parse(const std::string& line, MappingInfo& out);
};

// "MappingInfo { start:0x.. end:0x.. perms:.. offset:0x.. major:0x.. minor:0x.. inode:0x..
// path:.. }", numbers in hexadecimal without leading zeros. The stream is left in hexadecimal;
// a caller that needs decimal afterwards restores it.
std::ostream& operator<<(std::ostream& os, const MappingInfo& info);

// The mappings of one process, in the order of its maps file.
class MappingInfos : public std::vector<MappingInfo> {
 public:
  using std::vector<MappingInfo>::insert;
  // Appends.
  void insert(const MappingInfo& info) { push_back(info); }

  // A copy of the first mapping with start <= address < end; a default MappingInfo when none.
  MappingInfo find(const void* address) const;

  // A copy of the first mapping of file `path` at file offset `offset` whose perms are not
  // "---p" (inaccessible reservations that share the file and offset are skipped); a default
  // MappingInfo when none.
  MappingInfo find(const std::string& path, MappingInfo::Word offset) const;
};

// "MappingInfos [\n", each mapping followed by a newline, then "]".
std::ostream& operator<<(std::ostream& os, const MappingInfos& infos);

// Reads maps files and caches the last result per pid.
//
// Thread rules: the cache has no lock. populate() and mappingInfos() are meant for one thread
// at a time (in practice the diagnostic thread that inspects other processes).
class PidMappings {
 public:
  // Reads /proc/<pid>/maps, stores the result under `pid` (replacing the earlier one) and
  // returns it. When the file cannot be opened (no such process, no permission) returns an
  // empty list and leaves the cache untouched.
  static MappingInfos populate(int pid);

  // A copy of the cached list of `pid`; empty (and then cached as empty) if never populated.
  static MappingInfos mappingInfos(int pid);

  // Parses maps lines from `in` up to the end or the first line whose fixed part does not
  // parse.
  static MappingInfos parse(std::istream& in);
};

}  // namespace Tarvo
