// String helpers: comparison, search, trimming, word extraction,
// replacement and the growable texts, on arbitrary texts.

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "support/strings.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  const int flag = in.Byte() & 1;
  const int mode = in.Byte() % 4;
  const int first = static_cast<int8_t>(in.Byte());
  const int last = static_cast<int8_t>(in.Byte());
  const size_t n = in.Byte();
  const std::string a = in.Line();
  const std::string b = in.Line();
  const std::string c = in.Line();
  const std::string d(in.Rest());

  (void)CompareTo(a.c_str(), b.c_str(), flag);
  (void)IsEqual(a.c_str(), b.c_str(), flag);
  (void)CompareToN(a.c_str(), b.c_str(), n, flag);
  (void)IsNEqual(a.c_str(), b.c_str(), n, flag);
  (void)EndsWith(a.c_str(), b.c_str(), flag);
  (void)FindStr(a.c_str(), b.c_str(), flag);

  std::vector<char> buf(a.c_str(), a.c_str() + a.size() + 1);
  StrUpr(buf.data());
  StrLwr(buf.data());
  Strip(buf.data(), mode);
  buf.assign(a.c_str(), a.c_str() + a.size() + 1);
  StripChar(buf.data(), b.c_str(), mode);
  buf.assign(a.c_str(), a.c_str() + a.size() + 1);
  RemoveStr(buf.data(), b.c_str());

  std::string s = a;
  Strip(s, mode);
  s = a;
  StripChar(s, c.c_str(), mode);

  // Word extraction into a separate buffer and in place.
  std::vector<char> out(a.size() + 1);
  GetWord(a.c_str(), b.c_str(), first, last, out.data());
  GetWordKeepDelim(a.c_str(), b.c_str(), first, last, out.data());
  buf.assign(a.c_str(), a.c_str() + a.size() + 1);
  GetWord(buf.data(), b.c_str(), first, last, buf.data());
  (void)GetWord(a.c_str(), b.c_str(), first, last);
  (void)GetWordKeepDelim(a.c_str(), b.c_str(), first, last);

  s = a;
  ReplaceStr(s, b.c_str(), c.c_str(), flag);

  char* safe = nullptr;
  safe_cpy(&safe, a.c_str());
  ReplaceStr2(&safe, b.c_str(), c.c_str(), flag);
  safe_cat(&safe, d.c_str());
  safe_cat(&safe, safe);  // text inside the block itself
  safe_cpy(&safe, safe + std::strlen(safe) / 2);
  (void)safe_capacity(safe);
  safe_free(&safe);

  StringHolder holder{nullptr, 0};
  StringCopy(&holder, a.c_str());
  StringConcat(&holder, b.c_str());
  StringConcat(&holder, d.c_str());
  StringCopy(&holder, c.c_str());
  std::free(holder.buf);
  return 0;
}
