/// @file
/// Standard input whose pieces come exactly when the library waits for them.
#ifndef ZANCGI_TESTS_SUPPORT_PIECE_INPUT_H
#define ZANCGI_TESTS_SUPPORT_PIECE_INPUT_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace support {

/// Puts a real pipe in the place of this process's standard input, and writes
/// the next piece into it at each wait; after the last piece it hangs up. So
/// each read returns one piece. For use in a child.
class PieceInput {
 public:
  /// What happens at a wait.
  enum class Event {
    /// The next piece comes, or the hang-up.
    Piece,
    /// Nothing comes; the 30 seconds pass at once.
    Silence
  };
  /// Called at each wait, counted from 0, before anything comes.
  using Events = std::function<Event(std::size_t wait)>;

  /// @param pieces  each of at most 65536 bytes, what a pipe holds
  explicit PieceInput(std::vector<std::string> pieces, Events events = {});
  /// Puts back what was standard input before.
  ~PieceInput();
  PieceInput(const PieceInput&) = delete;
  PieceInput& operator=(const PieceInput&) = delete;

  /// How often the library has waited.
  std::size_t Waits() const { return waits_; }
  /// How many bytes of the pieces written so far nobody has read.
  std::size_t BytesUnread() const;

 private:
  void WritePiece();

  std::vector<std::string> pieces_;
  Events events_;
  std::size_t waits_ = 0;
  std::size_t written_ = 0;
  int before_;
  int writing_end_;
};

/// The text cut into pieces of this size.
std::vector<std::string> CutInto(const std::string& text, std::size_t size);

}  // namespace support

#endif
