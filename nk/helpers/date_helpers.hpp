// Date helpers: telling a real date from the far-past and far-future dates that
// servers and the platform use to mean "none" or "never".
#pragma once

#include "nk/foundation/date.hpp"

namespace nk {

// True when the date's year in the user's calendar and time zone is before 2000
// or after 3000 (distant past and future included). A date the calendar cannot
// place (a non-finite interval) counts as such a sentinel too. False for nil.
bool vnk_dateIsInfinite(const Date* date);

}  // namespace nk
