#include <security/pam_appl.h>
#include <sys/resource.h>

#include <climits>
#include <cstdlib>
#include <set>

#include "support/allocations.h"
#include "support/test.h"

namespace support {
namespace {

using zan_cgi::myconv;

/// One message of every style, and of none.
const std::vector<pam_message> kMessages = {
    {PAM_PROMPT_ECHO_OFF, "Password: "},
    {PAM_PROMPT_ECHO_ON, "login: "},
    {PAM_ERROR_MSG, "Too late"},
    {PAM_TEXT_INFO, "Welcome"},
    {1000, nullptr},
};

std::vector<const pam_message*> Pointers() {
  std::vector<const pam_message*> pointers;
  for (const pam_message& message : kMessages) pointers.push_back(&message);
  return pointers;
}

/// For what must stay as it is.
pam_response untouched;

#ifdef __SANITIZE_ADDRESS__  // It keeps memory of its own.
constexpr bool kCountsAllocations = false;
#else
constexpr bool kCountsAllocations = true;
#endif

void ExpectRefusal(int count, const pam_message** messages, char* data) {
  pam_response* answers = &untouched;
  BeginAllocations();
  const int code = myconv(count, messages, &answers, data);
  EXPECT_EQ(EndAllocations().count, 0U);
  EXPECT_EQ(code, PAM_CONV_ERR) << count;
  EXPECT_EQ(answers, &untouched);
}

TEST(Conversation, WithoutDataOrAMessageIsRefusedWithoutAnAnswer) {
  std::vector<const pam_message*> messages = Pointers();
  for (const int count : {5, 1, 0, -1, INT_MAX, INT_MIN}) {
    ExpectRefusal(count, messages.data(), nullptr);
  }
  char data[] = "secret";
  for (const int count : {0, -1, INT_MIN}) ExpectRefusal(count, nullptr, data);
}

/// What a conversation answers to so many messages; frees it.
void ExpectAnswers(int count, const pam_message** messages, std::string data) {
  pam_response* answers = nullptr;
  BeginAllocations();
  const int code = myconv(count, messages, &answers, data.data());
  const std::size_t made = EndAllocations().count;
  // The answers, and the text of each.
  EXPECT_EQ(made, kCountsAllocations ? 1 + static_cast<unsigned>(count) : 0U);
  ASSERT_EQ(code, PAM_SUCCESS);
  std::set<const char*> places = {data.data()};
  for (int i = 0; i < count; ++i) {
    EXPECT_EQ(answers[i].resp_retcode, 0);
    EXPECT_STREQ(answers[i].resp, data.c_str());
    EXPECT_TRUE(places.insert(answers[i].resp).second);
  }
  for (int i = 0; i < count; ++i) std::free(answers[i].resp);
  std::free(answers);
}

TEST(Conversation, AnswersEveryStyleWithACopyOfItsOwn) {
  std::vector<const pam_message*> messages = Pointers();
  // A text ends where it ends for C.
  for (const std::string& data :
       {std::string("secret"), std::string(), std::string("a\0b", 3),
        std::string(100'000, 'x')}) {
    ExpectAnswers(5, messages.data(), data);
    ExpectAnswers(1, messages.data(), data);
  }
  // The messages are not read.
  ExpectAnswers(5, nullptr, "secret");
}

#ifndef __SANITIZE_ADDRESS__

TEST(Conversation, ThatIsTooLongForTheMemoryIsRefusedWithoutAnAnswer) {
  RunCleanly(Child(), [] {
    constexpr rlim_t kGigabyte = 1 << 30;
    const rlimit limits{kGigabyte, kGigabyte};
    ::setrlimit(RLIMIT_AS, &limits);
    char data[] = "secret";
    pam_response* answers = &untouched;
    EXPECT_EQ(myconv(INT_MAX, nullptr, &answers, data), PAM_BUF_ERR);
    EXPECT_EQ(answers, &untouched);
  });
}

#endif

}  // namespace
}  // namespace support
