#include "output/time_text.h"

#include <fmt/format.h>

#include <cctype>
#include <ctime>

namespace tool {
namespace {

constexpr std::int64_t kSecond = 1'000'000;

// Takes the parts of a text off its front.
class TimeReader {
 public:
  explicit TimeReader(std::string_view text) : rest_(text) {}

  bool at_end() const { return rest_.empty(); }
  bool Take(std::string_view any_of) {
    if (rest_.empty() || any_of.find(rest_.front()) == std::string_view::npos) return false;
    rest_.remove_prefix(1);
    return true;
  }
  bool Number(std::size_t digits, int most, int& number) {
    if (rest_.size() < digits) return false;
    number = 0;
    for (char const digit : rest_.substr(0, digits)) {
      if (std::isdigit(static_cast<unsigned char>(digit)) == 0) return false;
      number = number * 10 + (digit - '0');
    }
    rest_.remove_prefix(digits);
    return number <= most;
  }
  // Up to six digits of a second.
  bool Fraction(std::int64_t& microseconds) {
    std::int64_t unit = kSecond;
    int digit = 0;
    while (unit > 1 && Number(1, 9, digit)) microseconds += digit * (unit /= 10);
    return unit < kSecond;
  }

 private:
  std::string_view rest_;
};

bool ReadDay(TimeReader& reader, std::tm& parts) {
  bool const whole = reader.Number(4, 9999, parts.tm_year) && reader.Take("-") &&
                     reader.Number(2, 12, parts.tm_mon) && reader.Take("-") &&
                     reader.Number(2, 31, parts.tm_mday) && reader.Take("T ");
  parts.tm_year -= 1900;
  parts.tm_mon -= 1;
  return whole && parts.tm_year >= 70 && parts.tm_mon >= 0 && parts.tm_mday > 0;
}

bool ReadClock(TimeReader& reader, std::tm& parts, std::int64_t& microseconds) {
  if (!reader.Number(2, 23, parts.tm_hour) || !reader.Take(":")) return false;
  if (!reader.Number(2, 59, parts.tm_min)) return false;
  if (!reader.Take(":")) return true;
  if (!reader.Number(2, 59, parts.tm_sec)) return false;
  return !reader.Take(".") || reader.Fraction(microseconds);
}

// The seconds that the zone is ahead of UTC; none: the text ends without one.
bool ReadZone(TimeReader& reader, std::optional<std::int64_t>& ahead) {
  if (reader.at_end()) return true;
  ahead = 0;
  if (reader.Take("Z")) return reader.at_end();
  bool const east = reader.Take("+");
  if (!east && !reader.Take("-")) return false;
  int hours = 0;
  int minutes = 0;
  if (!reader.Number(2, 23, hours)) return false;
  reader.Take(":");
  if (!reader.Number(2, 59, minutes) || !reader.at_end()) return false;
  ahead = (east ? 1 : -1) * (hours * 3600 + minutes * 60);
  return true;
}

}  // namespace

std::string TimeText(std::uint64_t microseconds) {
  auto const seconds = static_cast<std::time_t>(microseconds / 1'000'000);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:06}Z", parts.tm_year + 1900,
                     parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                     microseconds % 1'000'000);
}

// A day that its month does not have comes back as another one.
std::optional<std::uint64_t> ParseTime(std::string_view text) {
  TimeReader reader(text);
  std::tm parts{};
  std::int64_t microseconds = 0;
  std::optional<std::int64_t> ahead;
  if (!ReadDay(reader, parts) || !ReadClock(reader, parts, microseconds) ||
      !ReadZone(reader, ahead)) {
    return std::nullopt;
  }
  int const day = parts.tm_mday;
  parts.tm_isdst = -1;
  std::time_t const seconds = ahead.has_value() ? timegm(&parts) : mktime(&parts);
  if (parts.tm_mday != day) return std::nullopt;
  std::int64_t const time = (seconds - ahead.value_or(0)) * kSecond + microseconds;
  if (time <= 0) return std::nullopt;
  return static_cast<std::uint64_t>(time);
}

}  // namespace tool
