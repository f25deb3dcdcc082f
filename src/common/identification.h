// How the common library names itself: the program prints the one line, and the other goes out as
// User-Agent, by which web servers of appliances tell a unit from a browser.
#pragma once

inline constexpr char kCommonSourceId[] = "$Id: COMMON.cpp 9516 2013-04-10 12:07:55Z tq $";
inline constexpr char kCommonHeaderId[] = "$Id: COMMON.h 9516 2013-04-10 12:07:55Z tq $";
