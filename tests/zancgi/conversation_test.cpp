#include <gtest/gtest.h>
#include <security/pam_appl.h>
#include <sys/resource.h>
#include <zancgi/testing/child.h>
#include <zancgi/zancgi.h>

#include <climits>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

namespace {

using zan_cgi::myconv;
using zan_cgi::testing::Child;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::Told;

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

/// How often memory has been asked for; counted in this file where possible.
long allocations = 0;

TEST(Conversation, WithoutDataIsRefusedWithoutAnAnswer) {
  std::vector<const pam_message*> messages = Pointers();
  for (const int count : {5, 1, 0, -1, INT_MAX, INT_MIN}) {
    pam_response* answers = &untouched;
    const long before = allocations;
    EXPECT_EQ(myconv(count, messages.data(), &answers, nullptr), PAM_CONV_ERR);
    EXPECT_EQ(allocations, before);
    EXPECT_EQ(answers, &untouched);
  }
}

TEST(Conversation, WithoutAMessageIsRefusedWithoutAnAnswer) {
  char data[] = "secret";
  for (const int count : {0, -1, INT_MIN}) {
    pam_response* answers = &untouched;
    const long before = allocations;
    EXPECT_EQ(myconv(count, nullptr, &answers, data), PAM_CONV_ERR);
    EXPECT_EQ(allocations, before);
    EXPECT_EQ(answers, &untouched);
  }
}

/// What a conversation answers to the first of the messages, and frees it.
void ExpectAnswers(int count, std::string data) {
  std::vector<const pam_message*> messages = Pointers();
  pam_response* answers = nullptr;
  ASSERT_EQ(myconv(count, messages.data(), &answers, data.data()), PAM_SUCCESS);
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
  ExpectAnswers(5, "secret");
  ExpectAnswers(1, "secret");
}

TEST(Conversation, AnswersWithTheTextUpToItsEnd) {
  ExpectAnswers(5, "");
  ExpectAnswers(5, std::string("a\0b", 3));
  ExpectAnswers(5, std::string(100'000, 'x'));
}

TEST(Conversation, DoesNotReadTheMessages) {
  char data[] = "secret";
  pam_response* answers = nullptr;
  ASSERT_EQ(myconv(1, nullptr, &answers, data), PAM_SUCCESS);
  EXPECT_STREQ(answers[0].resp, "secret");
  std::free(answers[0].resp);
  std::free(answers);
}

#ifndef __SANITIZE_ADDRESS__  // It keeps memory of its own.

TEST(Conversation, AllocatesTheAnswersAndTheTextOfEachAndNoMore) {
  char data[] = "secret";
  pam_response* answers = nullptr;
  const long before = allocations;
  EXPECT_EQ(myconv(5, nullptr, &answers, data), PAM_SUCCESS);
  EXPECT_EQ(allocations - before, 1 + 5);
  for (int i = 0; i < 5; ++i) std::free(answers[i].resp);
  std::free(answers);
}

TEST(Conversation, ThatIsTooLongForTheMemoryIsRefusedWithoutAnAnswer) {
  Outcome outcome = Child().Run([](const Told& told) {
    constexpr rlim_t kGigabyte = 1 << 30;
    const rlimit limits{kGigabyte, kGigabyte};
    ::setrlimit(RLIMIT_AS, &limits);
    char data[] = "secret";
    pam_response* answers = &untouched;
    told("code", std::to_string(myconv(INT_MAX, nullptr, &answers, data)));
    told("answered", answers == &untouched ? "no" : "yes");
  });
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.told["code"], std::to_string(PAM_BUF_ERR));
  EXPECT_EQ(outcome.told["answered"], "no");
}

#endif

}  // namespace

#ifndef __SANITIZE_ADDRESS__

extern "C" void* RealMalloc(std::size_t size) __asm__("__libc_malloc");
extern "C" void* RealCalloc(std::size_t count,
                            std::size_t size) __asm__("__libc_calloc");

extern "C" void* malloc(std::size_t size) {
  ++allocations;
  return RealMalloc(size);
}

extern "C" void* calloc(std::size_t count, std::size_t size) {
  ++allocations;
  return RealCalloc(count, size);
}

#endif
