// KELC utilities: error facility, string lists, replacement and shell words.
#include "core/kelc.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "orvatest.h"

namespace {

using orvatest::TempRoot;

TEST(KelcError, PerThreadLastError) {
  KELCErrSetEx(KELC_ERR_PARSE, "main_file", 42);
  int otherCode = -1;
  std::string otherFile;
  std::thread t([&] {
    otherCode = KELCErrGet();  // a new thread starts clean
    KELC_ERR_SET(KELC_ERR_IO);
    otherFile = KELCErrorGetFile();
  });
  t.join();
  EXPECT_EQ(otherCode, KELC_ERR_NONE);
  EXPECT_EQ(otherFile, __FILE__);
  EXPECT_EQ(KELCErrGet(), KELC_ERR_PARSE);
  EXPECT_STREQ(KELCErrorGetFile(), "main_file");
  EXPECT_EQ(KELCErrorGetLine(), 42);
}

TEST(KelcSzList, GrowsMovesAndFrees) {
  PKELC_SZLIST list = KELCSzListAlloc(1);
  ASSERT_NE(list, nullptr);
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(KELCSzListAdd(&list, std::to_string(i).c_str()), i);
  }
  EXPECT_EQ(KELCSzListCount(list), 1000);
  EXPECT_STREQ(KELCSzListGet(list, 0), "0");
  EXPECT_STREQ(KELCSzListGet(list, 999), "999");
  EXPECT_EQ(KELCSzListGet(list, 1000), nullptr);
  EXPECT_EQ(KELCSzListGet(list, -1), nullptr);
  EXPECT_LT(KELCSzListAdd(&list, nullptr), 0);
  EXPECT_EQ(KELCErrGet(), KELC_ERR_INVALID_ARGUMENT);
  KELCSzListFree(list);
  KELCSzListFree(nullptr);
  EXPECT_EQ(KELCSzListAlloc(-1), nullptr);
}

TEST(KelcStrReplace, Table) {
  const struct Case {
    const char *text, *needle, *replacement;
    int mode;
    size_t size;  // 0: a roomy buffer
    int rc;       // negative: failure, buffer unchanged
    const char* result;
  } cases[] = {
      {"a-b-c", "-", "+", 0, 0, 2, "a+b+c"},
      {"a-b-c", "-", "+", 1, 0, 1, "a+b-c"},
      {"aaaa", "aa", "b", 0, 0, 2, "bb"},     // non-overlapping, left to right
      {"aaa", "a", "aa", 0, 0, 3, "aaaaaa"},  // replacement contains the needle
      {"abc", "x", "yy", 0, 0, 0, "abc"},     // no occurrence
      {"abc", "abc", "", 0, 0, 1, ""},        // shrinks to nothing
      {"#a# #b#", "#", "", 0, 8, 4, "a b"},
      {"ab", "b", "cd", 0, 4, 1, "acd"},      // exactly fits with terminator
      {"ab", "b", "cd", 0, 3, -1, "ab"},      // one byte short
      {"xyx", "x", "long", 0, 9, -1, "xyx"},  // second replacement would not fit
      {"xyx", "x", "long", 1, 9, 1, "longyx"},
      {"abc", "", "z", 0, 0, -1, "abc"},      // empty needle
      {"abc", "b", "z", 2, 0, -1, "abc"},     // unknown mode
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
  EXPECT_LT(KELCStrReplace(nullptr, "a", "b", 0, 10), 0);
}

std::string Encode(const std::string& in) {
  std::vector<char> out(in.size() * 3 + 2, 'Q');
  int n = KELCEncShParam(in.c_str(), out.data(), static_cast<int>(out.size()));
  EXPECT_GE(n, 0);
  EXPECT_EQ(static_cast<size_t>(n), strlen(out.data()));
  return std::string(out.data());
}

// Every byte alone, then random strings drawn from all bytes, from the characters the
// shell gives a meaning, and with a leading - or ~.
std::vector<std::string> GeneratedInputs() {
  std::vector<std::string> inputs;
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
  for (const char* fixed : {"~", "~root", "-n", "--", "*", ".*", "$HOME", "`id`", "$(id)", "a b", "\n", "'\n'",
                            "\\", "#", "!", "a=b", "[a]", "{a,b}"}) {
    inputs.emplace_back(fixed);
  }
  return inputs;
}

// Each input is encoded within its bounds, then `set -- WORD` runs through a real /bin/sh,
// which must see exactly one word equal to the input.
TEST(KelcEncShParam, GeneratedInputsAreOneShellWordWithinBounds) {
  TempRoot dir;
  for (const char* f : {"/a", "/b", "/ab", "/.hidden", "/-n", "/x y"}) {
    dir.Write(f, "");  // what an unescaped glob would match
  }
  const std::vector<std::string> inputs = GeneratedInputs();
  ASSERT_GE(inputs.size(), 10000u);
  std::string script;
  for (const std::string& in : inputs) {
    const std::string e = Encode(in);
    const int full = static_cast<int>(e.size());
    if (in.find('\n') == std::string::npos) {
      ASSERT_LE(e.size() + 1, 2 * (in.size() + 1)) << in;
    }
    // Exactly the needed size succeeds; one byte less fails and writes nothing.
    std::vector<char> exact(e.size() + 1), small(e.size(), 'Q');
    ASSERT_EQ(KELCEncShParam(in.c_str(), exact.data(), full + 1), full);
    ASSERT_LT(KELCEncShParam(in.c_str(), small.data(), full), 0);
    ASSERT_EQ(KELCErrGet(), KELC_ERR_TOO_LONG);
    ASSERT_EQ(std::string(small.begin(), small.end()), std::string(small.size(), 'Q'));
    script += "set -- " + e + "\nprintf '%s:%s\\000' \"$#\" \"$1\"\n";
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
    ASSERT_EQ(out.substr(start, pos - start), "1:" + inputs[i]) << "escaped as [" << Encode(inputs[i]) << "]";
  }
  EXPECT_EQ(i, inputs.size());
}

TEST(KelcEncShParam, EdgeCases) {
  char out[16] = "junk";
  EXPECT_EQ(KELCEncShParam("", out, sizeof out), 0);
  EXPECT_STREQ(out, "");
  EXPECT_LT(KELCEncShParam("", out, 0), 0);
  EXPECT_LT(KELCEncShParam(nullptr, out, sizeof out), 0);
  EXPECT_LT(KELCEncShParam("a", nullptr, 4), 0);
  // Plain names stay readable.
  EXPECT_EQ(Encode("Photo_Share-1.2/x,y:z+w@v%u=t"), "Photo_Share-1.2/x,y:z+w@v%u=t");
  EXPECT_EQ(Encode("a b"), "a\\ b");
  EXPECT_EQ(Encode("a\nb"), "a'\n'b");
}

}  // namespace
