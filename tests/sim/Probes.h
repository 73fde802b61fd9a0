#ifndef BOARDKIT_TESTS_SIM_PROBES_H
#define BOARDKIT_TESTS_SIM_PROBES_H

// The plain C program, in three builds.
constexpr const char* kProbe = BOARDKIT_PROBE;
constexpr const char* kStaticProbe = BOARDKIT_STATIC_PROBE;
constexpr const char* kSanitizedProbe = BOARDKIT_SANITIZED_PROBE;

#endif
