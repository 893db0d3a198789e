// KELC utilities: replacement and shell words. String lists: the share enumeration's tests.
#include "core/kelc.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "orvatest.h"

namespace {

TEST(KelcStrReplace, Table) {
  const struct Case {
    const char *text, *needle, *replacement;
    int mode;
    size_t size;  // 0: a roomy buffer
    int rc;       // negative: failure, buffer unchanged
    const char* result;
  } cases[] = {
      {"a-b-c", "-", "+", 0, 0, 2, "a+b+c"},
      {"aaaa", "aa", "b", 0, 0, 2, "bb"},     // non-overlapping, left to right
      {"aaa", "a", "aa", 0, 0, 3, "aaaaaa"},  // replacement contains the needle
      {"ab", "b", "cd", 0, 4, 1, "acd"},      // exactly fits with terminator
      {"ab", "b", "cd", 0, 3, -1, "ab"},      // one byte short
      {"xyx", "x", "long", 0, 9, -1, "xyx"},  // second replacement would not fit
      {"abc", "", "z", 0, 0, -1, "abc"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.text) + " / " + c.needle + " -> " + c.replacement);
    char buf[64];
    memset(buf, 'Z', sizeof buf);
    strcpy(buf, c.text);
    std::vector<char> before(buf, buf + sizeof buf);
    int rc = KELCStrReplace(buf, c.needle, c.replacement, c.mode, c.size ? c.size : sizeof buf);
    if (c.rc < 0) {
      EXPECT_LT(rc, 0);
      EXPECT_EQ(std::vector<char>(buf, buf + sizeof buf), before);  // not one byte touched
    } else {
      EXPECT_EQ(rc, c.rc);
      EXPECT_STREQ(buf, c.result);
    }
  }
  char unterminated[3] = {'a', 'b', 'c'};
  EXPECT_LT(KELCStrReplace(unterminated, "a", "b", 0, sizeof unterminated), 0);
}

// Every byte alone and between letters, tricky words, and random strings drawn from all bytes
// or from the characters the shell gives a meaning, some with a leading - or ~. Each is encoded
// within the 2 * (length + 1) bytes its callers allocate (newlines aside); then `set -- WORD`
// runs through a real /bin/sh, which must see exactly one word equal to the input.
TEST(KelcEncShParam, EveryInputIsOneShellWordWithinBounds) {
  std::vector<std::string> inputs = {"~", "~root", "-n", "--", "*", ".*", "$HOME", "`id`", "$(id)", "'\n'", "\\"};
  for (int b = 1; b <= 255; ++b) {
    inputs.emplace_back(1, static_cast<char>(b));
    inputs.push_back(std::string("x") + static_cast<char>(b) + "y");
  }
  const std::string shellChars = " \t\n'\"$`*?[]~-\\!#&;|<>(){}=%^,.:/@+ab01\x7f\x80\xff";
  std::mt19937 rng(20240607);
  std::uniform_int_distribution<int> len(1, 24), anyByte(1, 255), pick(0, static_cast<int>(shellChars.size()) - 1);
  for (int i = 0; i < 10000; ++i) {
    std::string s(i % 5 == 0 ? "-" : i % 5 == 1 ? "~" : "");
    for (int k = len(rng); k > 0; --k) {
      s += (i % 2) ? static_cast<char>(anyByte(rng)) : shellChars[static_cast<size_t>(pick(rng))];
    }
    inputs.push_back(s);
  }
  orvatest::TempRoot dir;
  for (const char* f : {"/a", "/b", "/ab", "/.hidden", "/-n", "/x y"}) {
    dir.Write(f, "");  // what an unescaped glob would match
  }
  std::string script;
  std::vector<std::string> encoded;
  for (const std::string& in : inputs) {
    std::vector<char> out(in.size() * 3 + 2, 'Q');
    const int n = KELCEncShParam(in.c_str(), out.data(), static_cast<int>(out.size()));
    ASSERT_GT(n, 0) << in;
    ASSERT_EQ(static_cast<size_t>(n), strlen(out.data()));
    if (in.find('\n') == std::string::npos) {
      ASSERT_LE(n + 1u, 2 * (in.size() + 1)) << in;
    }
    encoded.emplace_back(out.data());
    // Exactly the needed size succeeds; one byte less fails and writes nothing.
    std::vector<char> exact(n + 1), small(n, 'Q');
    ASSERT_EQ(KELCEncShParam(in.c_str(), exact.data(), n + 1), n);
    ASSERT_LT(KELCEncShParam(in.c_str(), small.data(), n), 0);
    ASSERT_EQ(KELCErrGet(), KELC_ERR_TOO_LONG);
    ASSERT_EQ(std::string(small.begin(), small.end()), std::string(small.size(), 'Q'));
    script += "set -- " + encoded.back() + "\nprintf '%s:%s\\000' \"$#\" \"$1\"\n";
  }
  std::ofstream(dir.path() + "/words.sh", std::ios::binary) << script;
  FILE* p = popen(("cd '" + dir.path() + "' && HOME=/nonexistent-home /bin/sh ./words.sh").c_str(), "r");
  ASSERT_NE(p, nullptr);
  std::string out;
  char buf[65536];
  for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) {
    out.append(buf, n);
  }
  ASSERT_EQ(pclose(p), 0);
  size_t i = 0, start = 0;
  for (size_t pos; (pos = out.find('\0', start)) != std::string::npos; start = pos + 1, ++i) {
    ASSERT_LT(i, inputs.size());
    ASSERT_EQ(out.substr(start, pos - start), "1:" + inputs[i]) << "escaped as [" << encoded[i] << "]";
  }
  EXPECT_EQ(i, inputs.size());
  // Plain share names stay readable; an empty word or no room at all is refused.
  char plain[64];
  EXPECT_EQ(KELCEncShParam("Photo_Share-1.2/x,y:z+w@v%u=t", plain, sizeof plain), 29);
  EXPECT_STREQ(plain, "Photo_Share-1.2/x,y:z+w@v%u=t");
  EXPECT_EQ(KELCEncShParam("", plain, sizeof plain), 0);
  EXPECT_LT(KELCEncShParam("a", plain, 0), 0);
}

}  // namespace
