#ifndef BOARDKIT_SYS_JOIN_H
#define BOARDKIT_SYS_JOIN_H

#include <initializer_list>
#include <string>
#include <string_view>

namespace boardkit {

/// Joins the pieces. (A chain of + would create a temporary for each.)
std::string Join(std::initializer_list<std::string_view> pieces);

}  // namespace boardkit

#endif
