// The conversions behind the numeric environment variables (WAITFOR_DEFAULT, ZQTEST_RANDSEED),
// kept apart from the environment look-ups so that any text can be handed to them directly.
#pragma once

namespace Tarvo::Impl {

// WAITFOR_DEFAULT's text as seconds: strtod (leading blanks allowed, trailing text ignored).
// True with `*out` set when a number was read and is in range; false, `*out` untouched, when
// there is no number or it overflows or underflows.
bool parseWaitForDefault(const char* text, double* out);

// ZQTEST_RANDSEED's text as a seed: strtoul base 10, cut to unsigned; a non-numeric text
// gives 0.
unsigned parseRandSeed(const char* text);

}  // namespace Tarvo::Impl
