// The printf-style formatter at once (FormatArgsToStdString) and as the log captures and later renders it
// (LogCapture) must give the same text, for formats built to fit Check's arguments; and dumps up to 1 MiB.
#include <fuzzer/FuzzedDataProvider.h>
#include <cstdarg>

#include "log/LogCapture.h"
#include "log/LogFormat.h"
#include "log/LogUtils.h"

static char keys[1 << 16];
static unsigned char dump[1 << 20];

// The log keeps the parse of its (literal) formats by address for good; with every place of that table taken by other
// keys first, each fuzzed format, at a reused address, is parsed afresh.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  for (char& key : keys) kt::LogFormat::Find(&key);
  return 0;
}

static std::string Render(const kt::LogCapture& capture) {
  std::vector<unsigned char> bytes(capture.Size());
  capture.CopyTo(bytes.data());
  std::string text;
  kt::LogCapture::Render(text, bytes.data(), bytes.size());
  return text;
}

// Seven groups (int, int, T), T being int, long, long long, double, long double, text and pointer.
static void Check(const char* format, ...) {
  va_list args, again;
  va_start(args, format);
  va_copy(again, args);
  kt::LogCapture capture;
  if (!capture.AddFormat(format, again) || kt::LogUtils::FormatArgsToStdString(format, args) != Render(capture))
    std::abort();
  va_end(again);
  va_end(args);
}

// Text and a conversion taking up to `stars` '*' (it says how many it took), with the flags and precision defined for
// its letter and a length modifier (two characters each, blank-padded).
static std::string Conversion(FuzzedDataProvider& in, const char* letters, const char* lengths, int& stars) {
  const char c = letters[in.ConsumeIntegralInRange<size_t>(0, std::strlen(letters) - 1)];
  const bool precision = c != 'c' && c != 'p';
  const std::string flags = std::string("-") + (std::strchr("csp", c) ? "" : "+ 0") +
                            (std::strchr("oxXeEfFgGaA", c) ? "#" : "") + (std::strchr("diufFgG", c) ? "'" : "");
  std::string text = in.ConsumeRandomLengthString(12);
  text.erase(std::remove(text.begin(), text.end(), '%'), text.end());
  text += in.ConsumeBool() ? "%%%" : "%";
  for (char flag : in.ConsumeRandomLengthString(4)) text += flags[static_cast<unsigned char>(flag) % flags.size()];
  stars = precision ? stars : std::min(stars, 1);
  const bool starWidth = stars == 2 || (stars == 1 && (!precision || in.ConsumeBool()));
  text += starWidth ? "*" : in.ConsumeBool() ? std::to_string(in.ConsumeIntegralInRange(1, 200)) : "";
  if (stars - starWidth == 1) text += ".*";
  else if (precision && in.ConsumeBool()) text += "." + std::to_string(in.ConsumeIntegralInRange(0, 200));
  const std::string length(lengths + 2 * in.ConsumeIntegralInRange<size_t>(0, std::strlen(lengths) / 2 - 1), 2);
  return text + length.substr(0, length.find(' ')) + c;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  if (in.ConsumeIntegralInRange(0, 3) == 0) {  // any size up to 1 MiB, the small as often as the large
    const size_t bytes = in.ConsumeIntegralInRange<size_t>(0, size_t{1} << in.ConsumeIntegralInRange(0, 20));
    const size_t kept = std::min<size_t>(bytes, kt::LogCapture::kDumpLimit);  // what a log entry shows
    in.ConsumeData(dump, bytes);
    kt::LogCapture capture;
    capture.AddDump(dump, bytes);
    const std::string text = kt::LogUtils::FormatByteArrayToHexString(dump, bytes), left = std::to_string(bytes - kept);
    if (text.size() != 5 * bytes - (bytes > 0) ||
        Render(capture) != text.substr(0, 5 * kept - (kept > 0)) + (bytes > kept ? " (" + left + " bytes left out)" : ""))
      std::abort();
    return 0;
  }
  const char* const letters[] = {"diuxXoc", "diuxXo", "diuxXo", "eEfFgGaA", "eEfFgGaA", "s", "p"};
  const char* const lengths[] = {"  h hh", "l j z t ", "llq ", "  l ", "L ", "  ", "  "};
  std::string format;
  for (int g = 0, groups = in.ConsumeIntegralInRange(0, 7); g < groups; ++g) {
    int stars = in.ConsumeIntegralInRange(0, 2), none = 0;  // ints that are not taken by a '*' are printed
    const std::string value = Conversion(in, letters[g], lengths[g], stars);
    for (int k = stars; k < 2; ++k) format += Conversion(in, letters[0], lengths[0], none);
    format += value;
  }
  int i[14];  // small enough as widths
  for (int& n : i) n = in.ConsumeBool() ? in.ConsumeIntegral<int16_t>() : in.ConsumeIntegralInRange(-300, 300);
  const uint64_t bits = in.ConsumeIntegral<uint64_t>();
  double real;
  std::memcpy(&real, &bits, sizeof real);
  const std::string text = in.ConsumeRandomLengthString(300);
  Check(format.c_str(), i[0], i[1], in.ConsumeIntegral<int>(), i[2], i[3], static_cast<long>(bits), i[4], i[5],
        static_cast<long long>(bits), i[6], i[7], real, i[8], i[9], static_cast<long double>(real), i[10], i[11],
        in.ConsumeBool() ? text.c_str() : nullptr, i[12], i[13], reinterpret_cast<void*>(in.ConsumeIntegral<uintptr_t>()));
  return 0;
}
