// The installation root from TOVI_ROOT and the paths derived from it.
#include <gtest/gtest.h>

#include "ToviBaseUtil.h"
#include "TestSupport.h"

using tovitest::ScopedEnv;

TEST(InstallPaths, RootFromEnvironmentReadAtEachCall) {
  const std::pair<const char*, const char*> cases[] = {
      {nullptr, ""}, {" /opt/p \r\n", "/opt/p/"}, {"/opt/p/", "/opt/p/"}, {"/opt/p", "/opt/p/"},
      {"D:\\p\\", "D:\\p\\/"},     {"", ""},               {" \t\r\n", ""},
      {"/", "/"},                  {"rel", "rel/"},
  };
  for (const auto& c : cases) {
    ScopedEnv env("TOVI_ROOT", c.first);
    EXPECT_EQ(ToviGetRootPath(), c.second) << (c.first ? c.first : "unset");
  }
  ScopedEnv env("TOVI_ROOT", "/opt/p/");
  EXPECT_EQ(ToviGetDefaultDebugCfgFile(), "/opt/p/etc/conf/default_debug.cfg");
  ScopedEnv other("TOVI_ROOT", "/other");
  EXPECT_EQ(ToviGetDefaultSslPath(), "/other/etc/ssl/");
}
