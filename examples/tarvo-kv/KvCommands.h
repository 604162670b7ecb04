// The command table of tarvo-kv: each command's arity, its work on the store, and its reply
// in RESP2 bytes, matching redis-server 7.0 byte for byte (error texts included) for the
// commands served: PING, ECHO, SET (EX PX EXAT PXAT KEEPTTL NX XX GET), GET, DEL, EXISTS,
// INCR, INCRBY, DECR, DECRBY, EXPIRE and PEXPIRE (NX XX GT LT), TTL, PTTL, DBSIZE, FLUSHALL,
// INFO, COMMAND (COUNT and DOCS, enough for redis-cli) and QUIT.
//
// Command names are case-insensitive. An unknown command or a wrong number of arguments
// answers an error and the connection goes on.
//
// Not thread-safe; used by the server thread that owns the store.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "KvStore.h"

namespace TarvoKv {

class KvCommands {
 public:
  // What the connection does once the reply is queued.
  enum class After {
    proceed,
    // QUIT: send what is queued, then close.
    closeAfterReply,
    // A request that looks like HTTP sent to the server ("POST", "Host:"): close at once.
    dropConnection,
  };
  // Appends INFO text about the server (sections separated by "\r\n"); `section` is the
  // argument of INFO in lower case, empty for all.
  using InfoSource = std::function<void(const std::string& section, std::string* out)>;

  explicit KvCommands(KvStore& store, InfoSource info = InfoSource());

  // Executes one command (args[0] is its name) at time `now` (milliseconds of the Unix
  // epoch) and appends its reply to *out.
  After execute(const std::vector<std::string>& args, int64_t now, std::string* out);

  uint64_t commandsProcessed() const noexcept { return commandsProcessed_; }

 private:
  struct Context;
  using Handler = void (KvCommands::*)(Context&);
  struct CommandInfo {
    const char* name;
    int arity;  // exact count when positive, minimum count when negative (name included)
    Handler handler;
  };
  static const CommandInfo table_[];

  void ping(Context& c);
  void echo(Context& c);
  void set(Context& c);
  void get(Context& c);
  void del(Context& c);
  void exists(Context& c);
  void incr(Context& c);
  void incrby(Context& c);
  void decr(Context& c);
  void decrby(Context& c);
  void expire(Context& c);
  void pexpire(Context& c);
  void ttl(Context& c);
  void pttl(Context& c);
  void dbsize(Context& c);
  void flushall(Context& c);
  void info(Context& c);
  void command(Context& c);
  void quit(Context& c);
  void incrementBy(Context& c, int64_t delta);
  void expireGeneric(Context& c, int64_t unitMs);
  void timeToLive(Context& c, bool milliseconds);

  KvStore& store_;
  InfoSource info_;
  uint64_t commandsProcessed_ = 0;
};

// RESP2 reply encoders, appending to *out.
void appendSimple(std::string* out, std::string_view text);
// "-<text>\r\n"; line breaks inside the text become blanks.
void appendError(std::string* out, std::string_view text);
void appendInteger(std::string* out, int64_t value);
void appendBulk(std::string* out, std::string_view bytes);
void appendNull(std::string* out);
void appendArrayHeader(std::string* out, size_t count);

}  // namespace TarvoKv
