#include <gtest/gtest.h>

#include "platform/http/CurlLibrary.h"

namespace corvid {
namespace {

TEST(CurlLibrary, IsLoadedWithTLS) {
  const Result<CurlLibrary>& library = curlLibrary();
  ASSERT_TRUE(library) << library.failure().message;
  EXPECT_NE(library.value().version_info(CURLVERSION_NOW)->ssl_version, nullptr);
}

TEST(CurlLibrary, ThatIsMissingIsNamed) {
  const Result<CurlLibrary> library = CurlLibrary::load("libnowhere.so.4");
  ASSERT_FALSE(library);
  EXPECT_TRUE(library.failure().message.starts_with("cannot load libcurl: libnowhere.so.4: "))
      << library.failure().message;
}

TEST(CurlLibrary, AnotherLibraryInItsPlaceIsRefused) {
  const Result<CurlLibrary> library = CurlLibrary::load("libm.so.6");
  ASSERT_FALSE(library);
  EXPECT_TRUE(library.failure().message.starts_with("cannot use libm.so.6 as libcurl: "))
      << library.failure().message;
  EXPECT_NE(library.failure().message.find("curl_global_init"), std::string::npos);
}

}  // namespace
}  // namespace corvid
