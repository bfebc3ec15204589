/// @file
/// Bodies of forms by chance: mostly sound, with everything in them that makes
/// parsers stumble.
#ifndef ZANCGI_TESTS_PLAIN_BODY_MAKER_H
#define ZANCGI_TESTS_PLAIN_BODY_MAKER_H

#include <cstdint>
#include <initializer_list>
#include <random>
#include <string>
#include <string_view>

#include "plain/plain_parser.h"

namespace plain {

class BodyMaker {
 public:
  /// @param directory  an existing folder for uploads
  BodyMaker(std::uint64_t seed, std::string directory);

  /// Another request each time.
  Request Make();

 private:
  bool Chance(unsigned percent);
  std::size_t Below(std::size_t limit);
  std::string_view OneOf(std::initializer_list<std::string_view> choices);

  std::string BoundaryValue();
  std::string Body();
  std::string Part();
  std::string Headers();
  std::string DispositionLine();
  std::string Content();
  std::string Piece();
  std::string QueryString();
  void Damage(std::string& body);
  void CutIntoReads(bool has_boundary, Input& input);
  unsigned PauseChance(bool has_boundary);
  void DeclareLength(Request& request);
  void DisturbStorage(Request& request);

  std::mt19937_64 random_;
  std::string directory_;
  std::string boundary_;
};

}  // namespace plain

#endif
