#ifndef KIV_UTILS_INI_FILE_H
#define KIV_UTILS_INI_FILE_H

#include <kiv/utils.h>

#include <map>
#include <string>

namespace kiv::utils {

using IniSections = std::map<std::string, std::map<std::string, std::string>>;

/// Takes in the lines of an INI file, one after another and without a file.
class IniParser {
 public:
  /// Adds to `out`, which is not cleared and must outlive this object.
  explicit IniParser(IniSections& out) : mOut(out) {}

  /// Takes in the next line, with or without its newline. Returns false when it is a malformed header.
  bool AddLine(StringView line);

 private:
  bool BeginSection(StringView header);

  IniSections& mOut;
  std::string mSection;
};

}  // namespace kiv::utils

#endif  // KIV_UTILS_INI_FILE_H
