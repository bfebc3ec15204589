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
using zan_cgi::testing::Reporter;

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
#ifdef __SANITIZE_ADDRESS__  // It keeps memory of its own.
constexpr bool kCountsAllocations = false;
#else
constexpr bool kCountsAllocations = true;
#endif

void ExpectRefusal(int count, const pam_message** messages, char* data) {
  pam_response* answers = &untouched;
  const long before = allocations;
  EXPECT_EQ(myconv(count, messages, &answers, data), PAM_CONV_ERR) << count;
  EXPECT_EQ(allocations, before);
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
  const long before = allocations;
  const int code = myconv(count, messages, &answers, data.data());
  const long made = allocations - before;
  // The answers, and the text of each.
  const long expected = kCountsAllocations ? 1 + count : 0;
  EXPECT_EQ(made, expected);
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
  Outcome outcome = Child().Run([](const Reporter& report) {
    constexpr rlim_t kGigabyte = 1 << 30;
    const rlimit limits{kGigabyte, kGigabyte};
    ::setrlimit(RLIMIT_AS, &limits);
    char data[] = "secret";
    pam_response* answers = &untouched;
    report("code", std::to_string(myconv(INT_MAX, nullptr, &answers, data)));
    report("answered", answers == &untouched ? "no" : "yes");
  });
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.reported["code"], std::to_string(PAM_BUF_ERR));
  EXPECT_EQ(outcome.reported["answered"], "no");
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
