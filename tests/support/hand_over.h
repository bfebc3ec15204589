/// @file
/// Uploads that are handed over to an account, by root to another one or by an
/// ordinary user to itself.
///
/// A program that uses this has hand_over.cpp among its own sources: the
/// functions defined there would otherwise be drawn into every test program.
#ifndef ZANCGI_TESTS_SUPPORT_HAND_OVER_H
#define ZANCGI_TESTS_SUPPORT_HAND_OVER_H

#include "support/account.h"
#include "support/files.h"
#include "support/test.h"

namespace support {

/// The only account that getpwnam(3) knows in this process from now on. Call
/// it in a child only.
void FakeAccount(const Account& account);

/// "owner:group mode", the mode in octal with a 0 in front.
std::string AttributesOf(const std::string& path);

/// An upload in a record: the client's name, and where its bytes lie.
struct Stored {
  std::string name;
  std::string path;
  std::int64_t size = 0;
};

/// The outcome of a hand-over. The log begins with the hand-over, and has
/// "zancgi_unix.cpp:#" for source name and line.
struct HandedOver : Outcome {
  /// What is recorded for each upload, by the client's name.
  Texts paths = {};
};

/// The folder "spool", in which uploads lie, and the account "visitor" with its
/// home.
class Owners {
 public:
  /// @param across  whether the home lies in another file system
  explicit Owners(bool across = false);

  std::string Spool() const { return scratch_ / "spool"; }
  std::string Home() const { return home_; }
  const Account& Visitor() const { return visitor_; }
  std::string operator/(const std::string& name) const {
    return scratch_ / name;
  }
  /// Puts a home of this path into the password database.
  void MoveHome(const std::string& path) { visitor_.home = path; }

  /// Makes a file of mode 0600 in the spool folder and returns its path.
  std::string MakeUpload(const std::string& name,
                         const std::string& content = "x") const;
  Strings InHome() const;
  Strings InSpool() const;

  /// Of a file that has not been handed over, and of one that has.
  std::string AttributesBefore() const;
  std::string AttributesAfter() const;

 private:
  Scratch scratch_;
  Scratch other_;
  std::string home_;
  Account visitor_;
};

/// Hands over in this child, which leaves the files where they then are.
/// Reports "size of" each upload.
/// @param prepare  called in the child, directly before
HandedOver HandOver(
    const Owners& owners, const std::vector<Stored>& files, bool use_chroot,
    const std::function<void()>& prepare = [] {}, const Child& child = Child());

}  // namespace support

#endif
