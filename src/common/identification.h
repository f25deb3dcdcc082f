// The version-control identification lines of the common library.
#pragma once

inline constexpr char kCommonSourceId[] = "$Id: COMMON.cpp 9516 2013-04-10 12:07:55Z tq $";
inline constexpr char kCommonHeaderId[] = "$Id: COMMON.h 9516 2013-04-10 12:07:55Z tq $";
