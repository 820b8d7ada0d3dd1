#include "kqimage/password/password.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <string>

namespace kqimage {
namespace {

// Has the password read what a pipe gives.
void ReadText(const std::string& text, Password& password) {
  int ends[2] = {};
  ASSERT_EQ(pipe(ends), 0);
  ASSERT_EQ(write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  close(ends[1]);
  password.ReadLine(ends[0], "the text");
  close(ends[0]);
}

TEST(Password, IsNullUntilOneIsRead) {
  Password password;
  EXPECT_EQ(password.CString(), nullptr);
  ReadText("", password);
  EXPECT_STREQ(password.CString(), "");
}

TEST(Password, ASecondOneReplacesTheFirst) {
  Password password;
  ReadText("a long one", password);
  ReadText("short", password);
  EXPECT_STREQ(password.CString(), "short");
}

TEST(Password, LeavesNoByteInItsPlaceWhenItGoes) {
  alignas(Password) unsigned char place[sizeof(Password)];
  std::memset(place, 0, sizeof place);
  auto* const password = new (place) Password;
  ReadText("the secret\nand what came with it", *password);
  ASSERT_STREQ(password->CString(), "the secret");
  const auto has = [&](const char* text) {
    return std::search(std::begin(place), std::end(place), text, text + std::strlen(text)) !=
           std::end(place);
  };
  EXPECT_TRUE(has("the secret"));
  EXPECT_FALSE(has("came with it")) << "no more is kept than the line";
  std::destroy_at(password);
  for (const char* rest : {"the", "secret"}) EXPECT_FALSE(has(rest));
}

}  // namespace
}  // namespace kqimage
