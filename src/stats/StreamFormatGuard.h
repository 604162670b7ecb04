// Printing reports and figures the same way whatever format the caller left on the stream.
#pragma once

#include <ios>
#include <locale>
#include <ostream>

#include <boost/io/ios_state.hpp>

namespace Tarvo {

// For the lifetime of the guard `os` has the default format: decimal, no base, sign or
// upper-case flags, right-adjusted, fill ' ', width 0, precision 6 and the classic locale (no
// digit grouping). The guard's destructor gives the caller back its flags, fill, precision
// and locale; the width stays 0, as after any formatted output. Use one at the top of every
// function that prints a report:
//
//   void TaskScheduler::printSomething(std::ostream& os) const {
//     StreamFormatGuard clean(os);
//     os << std::setw(10) << count << ...;
//   }
class StreamFormatGuard {
 public:
  explicit StreamFormatGuard(std::ostream& os)
      : flags_(os, std::ios_base::dec | std::ios_base::skipws),
        precision_(os, 6),
        fill_(os, ' '),
        locale_(os, std::locale::classic()) {
    os.width(0);
  }
  StreamFormatGuard(const StreamFormatGuard&) = delete;
  StreamFormatGuard& operator=(const StreamFormatGuard&) = delete;

 private:
  boost::io::ios_flags_saver flags_;
  boost::io::ios_precision_saver precision_;
  boost::io::basic_ios_fill_saver<char> fill_;
  boost::io::basic_ios_locale_saver<char> locale_;
};

}  // namespace Tarvo
