#include "KvCommands.h"

#include <strings.h>

#include <charconv>
#include <climits>

#include "RespParser.h"

namespace TarvoKv {

namespace {

const char kNotInteger[] = "ERR value is not an integer or out of range";
const char kSyntax[] = "ERR syntax error";

bool equalsNoCase(const std::string& word, const char* name) {
  return strcasecmp(word.c_str(), name) == 0;
}

void appendInvalidExpire(std::string* out, const char* command) {
  std::string text = "ERR invalid expire time in '";
  text += command;
  text += "' command";
  appendError(out, text);
}

}  // namespace

void appendSimple(std::string* out, std::string_view text) {
  out->push_back('+');
  out->append(text);
  out->append("\r\n", 2);
}

void appendError(std::string* out, std::string_view text) {
  size_t start = out->size();
  out->push_back('-');
  out->append(text);
  for (size_t i = start; i < out->size(); ++i) {
    if ((*out)[i] == '\r' || (*out)[i] == '\n') {
      (*out)[i] = ' ';
    }
  }
  out->append("\r\n", 2);
}

void appendInteger(std::string* out, int64_t value) {
  char buffer[24];
  buffer[0] = ':';
  char* end = std::to_chars(buffer + 1, buffer + sizeof(buffer), value).ptr;
  out->append(buffer, end);
  out->append("\r\n", 2);
}

void appendBulk(std::string* out, std::string_view bytes) {
  char buffer[24];
  buffer[0] = '$';
  char* end = std::to_chars(buffer + 1, buffer + sizeof(buffer), bytes.size()).ptr;
  out->append(buffer, end);
  out->append("\r\n", 2);
  out->append(bytes);
  out->append("\r\n", 2);
}

void appendNull(std::string* out) {
  out->append("$-1\r\n", 5);
}

void appendArrayHeader(std::string* out, size_t count) {
  char buffer[24];
  buffer[0] = '*';
  char* end = std::to_chars(buffer + 1, buffer + sizeof(buffer), count).ptr;
  out->append(buffer, end);
  out->append("\r\n", 2);
}

struct KvCommands::Context {
  const std::vector<std::string>& args;
  int64_t now;
  std::string* out;
  After after;
};

const KvCommands::CommandInfo KvCommands::table_[] = {
    {"get", 2, &KvCommands::get},        {"set", -3, &KvCommands::set},
    {"ping", -1, &KvCommands::ping},     {"echo", 2, &KvCommands::echo},
    {"del", -2, &KvCommands::del},       {"exists", -2, &KvCommands::exists},
    {"incr", 2, &KvCommands::incr},      {"incrby", 3, &KvCommands::incrby},
    {"decr", 2, &KvCommands::decr},      {"decrby", 3, &KvCommands::decrby},
    {"expire", -3, &KvCommands::expire}, {"pexpire", -3, &KvCommands::pexpire},
    {"ttl", 2, &KvCommands::ttl},        {"pttl", 2, &KvCommands::pttl},
    {"dbsize", 1, &KvCommands::dbsize},  {"flushall", -1, &KvCommands::flushall},
    {"info", -1, &KvCommands::info},     {"command", -1, &KvCommands::command},
    {"quit", -1, &KvCommands::quit},
};

KvCommands::KvCommands(KvStore& store, InfoSource info) : store_(store), info_(std::move(info)) {}

KvCommands::After KvCommands::execute(const std::vector<std::string>& args, int64_t now,
                                      std::string* out) {
  ++commandsProcessed_;
  const std::string& name = args[0];
  for (const CommandInfo& info : table_) {
    if (!equalsNoCase(name, info.name)) {
      continue;
    }
    int count = args.size() > INT_MAX ? INT_MAX : static_cast<int>(args.size());
    if ((info.arity > 0 && count != info.arity) || (info.arity < 0 && count < -info.arity)) {
      std::string text = "ERR wrong number of arguments for '";
      text += info.name;
      text += "' command";
      appendError(out, text);
      return After::proceed;
    }
    Context context{args, now, out, After::proceed};
    (this->*info.handler)(context);
    return context.after;
  }
  // Browsers and HTTP proxies talking to the port: nothing of theirs is a command.
  if (equalsNoCase(name, "post") || equalsNoCase(name, "host:")) {
    return After::dropConnection;
  }
  // The name is cut at 128 bytes; quoted arguments follow while the list is under 128.
  std::string text = "ERR unknown command '";
  text.append(name, 0, 128);
  text += "', with args beginning with: ";
  std::string list;
  for (size_t i = 1; i < args.size() && list.size() < 128; ++i) {
    list += '\'';
    list.append(args[i], 0, 128 - (list.size() - 1));
    list += "' ";
  }
  text += list;
  appendError(out, text);
  return After::proceed;
}

void KvCommands::ping(Context& c) {
  if (c.args.size() > 2) {
    appendError(c.out, "ERR wrong number of arguments for 'ping' command");
  } else if (c.args.size() == 2) {
    appendBulk(c.out, c.args[1]);
  } else {
    c.out->append("+PONG\r\n", 7);
  }
}

void KvCommands::echo(Context& c) {
  appendBulk(c.out, c.args[1]);
}

void KvCommands::get(Context& c) {
  KvStore::Entry* entry = store_.find(c.args[1], c.now);
  if (entry == nullptr) {
    appendNull(c.out);
  } else {
    appendBulk(c.out, entry->value());
  }
}

void KvCommands::set(Context& c) {
  constexpr unsigned nx = 1, xx = 2, get = 4, keepTtl = 8, ex = 16, px = 32, exAt = 64, pxAt = 128;
  const unsigned anyExpiry = ex | px | exAt | pxAt;
  unsigned flags = 0;
  const std::string* expireArg = nullptr;
  for (size_t j = 3; j < c.args.size(); ++j) {
    const std::string& option = c.args[j];
    bool hasNext = j + 1 < c.args.size();
    unsigned expiryKind = equalsNoCase(option, "ex")     ? ex
                          : equalsNoCase(option, "px")   ? px
                          : equalsNoCase(option, "exat") ? exAt
                          : equalsNoCase(option, "pxat") ? pxAt
                                                         : 0;
    if (equalsNoCase(option, "nx") && !(flags & xx)) {
      flags |= nx;
    } else if (equalsNoCase(option, "xx") && !(flags & nx)) {
      flags |= xx;
    } else if (equalsNoCase(option, "get")) {
      flags |= get;
    } else if (equalsNoCase(option, "keepttl") && !(flags & anyExpiry)) {
      flags |= keepTtl;
    } else if (expiryKind != 0 && !(flags & keepTtl) && !(flags & (anyExpiry & ~expiryKind)) &&
               hasNext) {
      // The same kind given twice is accepted: the last value counts.
      flags |= expiryKind;
      expireArg = &c.args[++j];
    } else {
      appendError(c.out, kSyntax);
      return;
    }
  }
  int64_t expireAt = KvStore::noExpiry;
  if (expireArg != nullptr) {
    int64_t value = 0;
    if (!parseStrictInt64(*expireArg, &value)) {
      appendError(c.out, kNotInteger);
      return;
    }
    bool seconds = flags & (ex | exAt);
    if (value <= 0 || (seconds && value > INT64_MAX / 1000)) {
      appendInvalidExpire(c.out, "set");
      return;
    }
    if (seconds) {
      value *= 1000;
    }
    if (flags & (ex | px)) {
      if (value > INT64_MAX - c.now) {
        appendInvalidExpire(c.out, "set");
        return;
      }
      value += c.now;
    }
    expireAt = value;
  }
  KvStore::Entry* existing = store_.find(c.args[1], c.now);
  if (flags & get) {
    if (existing == nullptr) {
      appendNull(c.out);
    } else {
      appendBulk(c.out, existing->value());
    }
  }
  if ((flags & nx && existing != nullptr) || (flags & xx && existing == nullptr)) {
    if (!(flags & get)) {
      appendNull(c.out);
    }
    return;
  }
  KvStore::Entry* entry = existing;
  if (entry != nullptr) {
    store_.setValue(*entry, c.args[2]);
  } else {
    entry = &store_.set(c.args[1], c.args[2], c.now);
  }
  if (!(flags & keepTtl)) {
    store_.expireAtIs(*entry, expireAt);
  }
  if (!(flags & get)) {
    c.out->append("+OK\r\n", 5);
  }
}

void KvCommands::del(Context& c) {
  int64_t removed = 0;
  for (size_t i = 1; i < c.args.size(); ++i) {
    removed += store_.erase(c.args[i], c.now) ? 1 : 0;
  }
  appendInteger(c.out, removed);
}

void KvCommands::exists(Context& c) {
  int64_t found = 0;
  for (size_t i = 1; i < c.args.size(); ++i) {
    found += store_.find(c.args[i], c.now) != nullptr ? 1 : 0;
  }
  appendInteger(c.out, found);
}

void KvCommands::incrementBy(Context& c, int64_t delta) {
  KvStore::Entry* entry = store_.find(c.args[1], c.now);
  int64_t value = 0;
  if (entry != nullptr && !parseStrictInt64(entry->value(), &value)) {
    appendError(c.out, kNotInteger);
    return;
  }
  if ((delta < 0 && value < 0 && delta < INT64_MIN - value) ||
      (delta > 0 && value > 0 && delta > INT64_MAX - value)) {
    appendError(c.out, "ERR increment or decrement would overflow");
    return;
  }
  value += delta;
  // A counter keeps the expiry time of the key it updates.
  char buffer[24];
  std::string_view digits(buffer,
                          std::to_chars(buffer, buffer + sizeof(buffer), value).ptr - buffer);
  if (entry != nullptr) {
    store_.setValue(*entry, digits);
  } else {
    store_.set(c.args[1], digits, c.now);
  }
  appendInteger(c.out, value);
}

void KvCommands::incr(Context& c) {
  incrementBy(c, 1);
}

void KvCommands::decr(Context& c) {
  incrementBy(c, -1);
}

void KvCommands::incrby(Context& c) {
  int64_t delta = 0;
  if (!parseStrictInt64(c.args[2], &delta)) {
    appendError(c.out, kNotInteger);
    return;
  }
  incrementBy(c, delta);
}

void KvCommands::decrby(Context& c) {
  int64_t delta = 0;
  if (!parseStrictInt64(c.args[2], &delta)) {
    appendError(c.out, kNotInteger);
    return;
  }
  if (delta == INT64_MIN) {
    appendError(c.out, "ERR decrement would overflow");
    return;
  }
  incrementBy(c, -delta);
}

void KvCommands::expireGeneric(Context& c, int64_t unitMs) {
  constexpr unsigned nx = 1, xx = 2, gt = 4, lt = 8;
  unsigned flags = 0;
  for (size_t j = 3; j < c.args.size(); ++j) {
    const std::string& option = c.args[j];
    if (equalsNoCase(option, "nx")) {
      flags |= nx;
    } else if (equalsNoCase(option, "xx")) {
      flags |= xx;
    } else if (equalsNoCase(option, "gt")) {
      flags |= gt;
    } else if (equalsNoCase(option, "lt")) {
      flags |= lt;
    } else {
      appendError(c.out, "ERR Unsupported option " + option);
      return;
    }
  }
  if ((flags & nx) && (flags & (xx | gt | lt))) {
    appendError(c.out, "ERR NX and XX, GT or LT options at the same time are not compatible");
    return;
  }
  if ((flags & gt) && (flags & lt)) {
    appendError(c.out, "ERR GT and LT options at the same time are not compatible");
    return;
  }
  const char* name = unitMs == 1000 ? "expire" : "pexpire";
  int64_t when = 0;
  if (!parseStrictInt64(c.args[2], &when)) {
    appendError(c.out, kNotInteger);
    return;
  }
  if (when > INT64_MAX / unitMs || when < INT64_MIN / unitMs) {
    appendInvalidExpire(c.out, name);
    return;
  }
  when *= unitMs;
  if (when > INT64_MAX - c.now) {
    appendInvalidExpire(c.out, name);
    return;
  }
  when += c.now;
  KvStore::Entry* entry = store_.find(c.args[1], c.now);
  if (entry == nullptr) {
    appendInteger(c.out, 0);
    return;
  }
  // A key without expiry counts as expiring never: later than any time for GT and LT.
  bool persistent = entry->expireAt() == KvStore::noExpiry;
  if ((flags & nx && !persistent) || (flags & xx && persistent) ||
      (flags & gt && (persistent || when <= entry->expireAt())) ||
      (flags & lt && !persistent && when >= entry->expireAt())) {
    appendInteger(c.out, 0);
    return;
  }
  if (when <= c.now) {
    store_.erase(c.args[1], c.now);
  } else {
    store_.expireAtIs(*entry, when);
  }
  appendInteger(c.out, 1);
}

void KvCommands::expire(Context& c) {
  expireGeneric(c, 1000);
}

void KvCommands::pexpire(Context& c) {
  expireGeneric(c, 1);
}

void KvCommands::timeToLive(Context& c, bool milliseconds) {
  KvStore::Entry* entry = store_.find(c.args[1], c.now);
  if (entry == nullptr) {
    appendInteger(c.out, -2);
  } else if (entry->expireAt() == KvStore::noExpiry) {
    appendInteger(c.out, -1);
  } else {
    int64_t left = entry->expireAt() - c.now;
    appendInteger(c.out, milliseconds ? left : (left + 500) / 1000);
  }
}

void KvCommands::ttl(Context& c) {
  timeToLive(c, false);
}

void KvCommands::pttl(Context& c) {
  timeToLive(c, true);
}

void KvCommands::dbsize(Context& c) {
  appendInteger(c.out, static_cast<int64_t>(store_.size()));
}

void KvCommands::flushall(Context& c) {
  if (c.args.size() > 2 || (c.args.size() == 2 && !equalsNoCase(c.args[1], "sync") &&
                            !equalsNoCase(c.args[1], "async"))) {
    appendError(c.out, kSyntax);
    return;
  }
  store_.clear();
  c.out->append("+OK\r\n", 5);
}

void KvCommands::info(Context& c) {
  std::string section;
  if (c.args.size() > 1) {
    for (char ch : c.args[1]) {
      section.push_back(static_cast<char>(ch >= 'A' && ch <= 'Z' ? ch - 'A' + 'a' : ch));
    }
  }
  std::string text;
  if (info_) {
    info_(section, &text);
  }
  if (section.empty() || section == "all" || section == "default" || section == "keyspace") {
    if (!text.empty()) {
      text += "\r\n";
    }
    text += "# Keyspace\r\n";
    if (store_.size() > 0) {
      text += "db0:keys=" + std::to_string(store_.size()) +
              ",expires=" + std::to_string(store_.volatileCount()) + ",avg_ttl=0\r\n";
    }
  }
  appendBulk(c.out, text);
}

void KvCommands::command(Context& c) {
  if (c.args.size() == 1) {
    // Clients only list commands to learn their shapes; an empty table is a valid answer.
    appendArrayHeader(c.out, 0);
  } else if (equalsNoCase(c.args[1], "count") && c.args.size() == 2) {
    appendInteger(c.out, static_cast<int64_t>(std::size(table_)));
  } else if (equalsNoCase(c.args[1], "docs")) {
    appendArrayHeader(c.out, 0);
  } else {
    appendError(c.out,
                "ERR unknown subcommand '" + c.args[1].substr(0, 128) + "'. Try COMMAND HELP.");
  }
}

void KvCommands::quit(Context& c) {
  c.out->append("+OK\r\n", 5);
  c.after = After::closeAfterReply;
}

}  // namespace TarvoKv
