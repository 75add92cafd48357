// Date helpers over the user's calendar.

#include "nk/helpers/date_helpers.hpp"

#include <optional>

#include "nk/system/calendar.hpp"

namespace nk {

bool vnk_dateIsInfinite(const Date* date) {
  if (!date) return false;
  const std::optional<int> year = Calendar::yearOfDate(date);
  if (!year) return true;
  return *year < 2000 || *year > 3000;
}

}  // namespace nk
