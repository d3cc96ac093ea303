// The log's file name follows the date form; the plain C locales must agree on it, or one day
// would be split over two files.

#include <gtest/gtest.h>

#include "platform/linux/linux_clock.h"

namespace tessmark::platform::linux_backend {
namespace {

TEST(LocaleNames, EveryPlainCLocaleIsPlainWhateverItsCharacterSet) {
  for (const char* plain : {"C", "POSIX", "C.UTF-8", "C.utf8",
                            "LC_CTYPE=de_DE.UTF-8;LC_NUMERIC=C;LC_TIME=C.UTF-8;LC_COLLATE=C"})
    EXPECT_TRUE(IsPlainLocaleName(plain)) << plain;
  for (const char* user : {"de_DE.UTF-8", "en_US.UTF-8", "Ca_ES", "",
                           "LC_CTYPE=C.UTF-8;LC_NUMERIC=C;LC_TIME=de_DE.UTF-8;LC_COLLATE=C"})
    EXPECT_FALSE(IsPlainLocaleName(user)) << user;
}

}  // namespace
}  // namespace tessmark::platform::linux_backend
