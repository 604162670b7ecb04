#include "Tarvo/Mappings.h"

#include <cstdio>
#include <fstream>
#include <unordered_map>

namespace Tarvo {
namespace {

// The last maps read per pid.
std::unordered_map<int, MappingInfos>& pidCache() {
  static std::unordered_map<int, MappingInfos> cache;
  return cache;
}

}  // namespace

bool MappingInfo::parse(const std::string& line, MappingInfo& out) {
  // The permission column is four characters; a wider field stops the scan rather than
  // overflowing the buffer.
  char perms[8] = {};
  unsigned long start = 0, end = 0, offset = 0, inode = 0;
  unsigned major = 0, minor = 0;
  int consumed = 0;
  int items = std::sscanf(line.c_str(), "%lx-%lx %7s %lx %x:%x %lu%n", &start, &end, perms, &offset,
                          &major, &minor, &inode, &consumed);
  if (items < 7) {
    return false;
  }
  out.start = start;
  out.end = end;
  out.perms = perms;
  out.offset = offset;
  out.major = major;
  out.minor = minor;
  out.inode = inode;
  size_t pos = static_cast<size_t>(consumed);
  while (pos < line.size() && (line[pos] == ' ' || line[pos] == '\t')) {
    ++pos;
  }
  size_t stop = line.find('\n', pos);
  out.path = line.substr(pos, stop == std::string::npos ? std::string::npos : stop - pos);
  return true;
}

std::ostream& operator<<(std::ostream& os, const MappingInfo& info) {
  os << std::hex << "MappingInfo { start:0x" << info.start << " end:0x" << info.end
     << " perms:" << info.perms << " offset:0x" << info.offset << " major:0x" << info.major
     << " minor:0x" << info.minor << " inode:0x" << info.inode << " path:" << info.path << " }";
  return os;
}

MappingInfo MappingInfos::find(const void* address) const {
  auto value = reinterpret_cast<MappingInfo::Word>(address);
  for (const MappingInfo& info : *this) {
    if (info.start <= value && value < info.end) {
      return info;
    }
  }
  return MappingInfo();
}

MappingInfo MappingInfos::find(const std::string& path, MappingInfo::Word offset) const {
  for (const MappingInfo& info : *this) {
    if (info.path == path && info.offset == offset && info.perms != "---p") {
      return info;
    }
  }
  return MappingInfo();
}

std::ostream& operator<<(std::ostream& os, const MappingInfos& infos) {
  os << "MappingInfos [\n";
  for (const MappingInfo& info : infos) {
    os << info << "\n";
  }
  return os << "]";
}

MappingInfos PidMappings::parse(std::istream& in) {
  MappingInfos infos;
  std::string line;
  MappingInfo info;
  while (std::getline(in, line) && MappingInfo::parse(line, info)) {
    infos.insert(info);
  }
  return infos;
}

MappingInfos PidMappings::populate(int pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/maps");
  if (!in.is_open()) {
    return MappingInfos();
  }
  MappingInfos infos = parse(in);
  pidCache()[pid] = infos;
  return infos;
}

MappingInfos PidMappings::mappingInfos(int pid) {
  return pidCache()[pid];
}

}  // namespace Tarvo
