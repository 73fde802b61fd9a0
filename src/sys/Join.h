#ifndef BOARDKIT_SYS_JOIN_H
#define BOARDKIT_SYS_JOIN_H

#include <initializer_list>
#include <string>
#include <string_view>

namespace boardkit {

/// One text out of its pieces. (A chain of + would be a chain of temporaries, each with its code.)
std::string Join(std::initializer_list<std::string_view> pieces);

}  // namespace boardkit

#endif
