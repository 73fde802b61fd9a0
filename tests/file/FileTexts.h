#ifndef BOARDKIT_TESTS_FILETEXTS_H
#define BOARDKIT_TESTS_FILETEXTS_H

#include <string>

/// What the failures of files say, stated a second time: programs compare these texts.
namespace filetext {

inline std::string OpenFailed(const std::string& name) {
  return "Open for '" + name + "' failed.";
}
inline std::string ReadLinkFailed(const std::string& path) {
  return "ReadLink failed for '" + path + "' failed.";
}
inline std::string SeekFailed(const std::string& name) {
  return "Seeking failed for '" + name + "' failed.";
}
inline std::string IoctlFailed(const std::string& name) {
  return "IO Control failed for '" + name + "' failed.";
}
inline std::string EndOfFile(const std::string& name) {
  return "End of file reached for '" + name + "'.";
}
/// @p inner is the whole text of what the transfer below failed with.
inline std::string WriteFailed(const std::string& inner, const std::string& name) {
  return inner + "WriteBytes to '" + name + "' failed.";
}
inline std::string ReadFailed(const std::string& inner, const std::string& name) {
  return inner + "ReadBytes from '" + name + "' failed.";
}

}  // namespace filetext

#endif
