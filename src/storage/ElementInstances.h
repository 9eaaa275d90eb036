#pragma once

/// The element types of typed columns: applies \p X to each.
#define KYR_FOR_EACH_ELEMENT_TYPE(X) \
  X(double)                          \
  X(float)                           \
  X(char)                            \
  X(unsigned char)                   \
  X(short)                           \
  X(unsigned short)                  \
  X(int)                             \
  X(unsigned int)                    \
  X(long long)                       \
  X(unsigned long long)
