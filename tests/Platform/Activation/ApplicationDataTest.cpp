#include "Platform/Activation/ApplicationData.h"

#include <gtest/gtest.h>

#include "Platform/Foundation/HResultError.h"
#include "Platform/Text/TextConversion.h"
#include "Support/PackageFolder.h"

namespace Quorvendale::Platform {
namespace {

using Testing::PackageFolder;
using Testing::ScopedEnvironment;

std::filesystem::path localFolderPath() {
    return utf16ToUtf8(ApplicationData::Current().LocalFolder().Path());
}

// Read on every call, not once per process; a relative XDG_DATA_HOME is
// ignored; without a package identity, the platform's own error.
TEST(ApplicationData, LocalFolderIsMadeWhereTheEnvironmentSays) {
    PackageFolder package;
    EXPECT_EQ(localFolderPath(), package.localState());
    EXPECT_TRUE(std::filesystem::is_directory(package.localState()));
    ScopedEnvironment other("QUORVENDALE_PACKAGE_FAMILY_NAME", "Other_1");
    EXPECT_EQ(localFolderPath(), package.base() / "Packages/Other_1/LocalState");
    ScopedEnvironment home("HOME", package.base().c_str());
    ScopedEnvironment relative("XDG_DATA_HOME", "relative/is/ignored");
    EXPECT_EQ(localFolderPath(), package.base() / ".local/share/Packages/Other_1/LocalState");

    ScopedEnvironment noPackage("QUORVENDALE_PACKAGE_FAMILY_NAME", nullptr);
    try {
        ApplicationData::Current();
        ADD_FAILURE() << "no error raised";
    } catch (const HResultError& error) {
        EXPECT_EQ(static_cast<std::uint32_t>(error.code()), 0x80073D54u);
        EXPECT_EQ(error.message(), hstring(u"The process has no package identity."));
    }
}

}  // namespace
}  // namespace Quorvendale::Platform
