#include "SerialExtended.h"

#include <asm/termbits.h>

#include <cstddef>

#include <gtest/gtest.h>

static_assert(sizeof(ExtendedAttributes) == sizeof(termios2) && sizeof(termios2) == 44, "a copy of the kernel's");
static_assert(offsetof(ExtendedAttributes, controlFlags) == offsetof(termios2, c_cflag), "a copy of the kernel's");
static_assert(offsetof(ExtendedAttributes, characters) == offsetof(termios2, c_cc), "a copy of the kernel's");
static_assert(offsetof(ExtendedAttributes, inputSpeed) == offsetof(termios2, c_ispeed), "a copy of the kernel's");
static_assert(offsetof(ExtendedAttributes, outputSpeed) == offsetof(termios2, c_ospeed), "a copy of the kernel's");
static_assert(ExtendedAttributes::kGet == TCGETS2 && ExtendedAttributes::kSet == TCSETS2, "the kernel's number");
static_assert(ExtendedAttributes::kSpeedMask == CBAUD && ExtendedAttributes::kOtherSpeed == BOTHER,
              "the kernel's bits");
static_assert(ExtendedAttributes::kInputShift == IBSHIFT, "the kernel's bits");

ExtendedAttributes GetExtendedAttributes(int fd) {
  ExtendedAttributes attributes{};
  EXPECT_EQ(::ioctl(fd, ExtendedAttributes::kGet, &attributes), 0);
  return attributes;
}
