// What is installed is enough for others: outside projects build against it, and the Debian
// packages install, run and leave nothing behind.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/test_env.h"

namespace {

namespace fs = std::filesystem;

// Runs a command line by the shell; its output on failure is shown.
void Sh(const std::string& command, std::string* output = nullptr) {
  test::Child child = test::Child::Run({"/bin/sh", "-ec", command});
  ASSERT_EQ(child.Wait(280000), 0) << command << "\n" << child.output();
  if (output != nullptr) *output = child.output();
}

// A sanitized library asks for its runtime in every program that loads it; outside projects know
// nothing of that.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif

// A header missing from the install rules, a wrong path in the CMake package or in bsp.pc.
TEST(Install, OutsideProjectsBuildAndRun) {
  NEED_PRIVATE_WORLD();
  if (kIsSanitized) GTEST_SKIP() << "outside programs load no sanitizer runtime";
  setenv("PREFIX", test::MakeTempDir().c_str(), 1);
  setenv("WORK", test::MakeTempDir().c_str(), 1);
  Sh("cmake --install " BSP_TEST_BUILD_DIR " --prefix $PREFIX");
  // All headers, including those that no example needs.
  Sh("cd $PREFIX/include; find bsp -name '*.h' | sed 's/.*/#include <&>/' | "
     "c++ -std=c++17 -fsyntax-only -I. -x c++ -");

  std::string output;
  Sh("cmake -S " BSP_TEST_SOURCE_DIR
     "/tests/outside -B $WORK/b -DCMAKE_PREFIX_PATH=$PREFIX; "
     "cmake --build $WORK/b");
  Sh("$PREFIX/bin/bspctl prop set outside works; $WORK/b/property_reader outside; "
     "$WORK/b/event_thread",
     &output);
  EXPECT_NE(output.find("works\n"), std::string::npos) << output;
  EXPECT_NE(output.find("message 3\n"), std::string::npos) << output;

  // The first module of the README, built by its very lines.
  const std::string env =
      "cd $WORK; export PATH=$PREFIX/bin:$PATH LD_LIBRARY_PATH=$PREFIX/lib "
      "PKG_CONFIG_PATH=$PREFIX/lib/pkgconfig; ";
  Sh("ln -s " BSP_TEST_SOURCE_DIR "/examples $WORK/examples");
  test::Child broker = test::Child::Run({"/bin/sh", "-c", "exec $PREFIX/bin/bsp-broker"});
  ASSERT_TRUE(broker.WaitForLine("ready")) << broker.output();
  for (const std::string compiler : {"^cc examples", "^c++ .*examples"}) {
    Sh(env + "grep '" + compiler + "' " BSP_TEST_SOURCE_DIR "/README.md > lines; . ./lines");
    test::Child module = test::Child::Run({"/bin/sh", "-c", env + "exec ./hello"});
    Sh(env + "until bspctl rpc check hello; do sleep 0.1; done; bspctl rpc call hello world",
       &output);
    EXPECT_NE(output.find("hello world"), std::string::npos) << output;
    module.Signal(SIGTERM);
    EXPECT_EQ(module.Wait(), 0) << module.output();
  }
  Sh("cd $PREFIX/share/man/man1; test -e bsp-broker.1 -a -e bsp-logd.1 -a -e bspctl.1");
}

// Packages that lack a dependency, or leave files behind. They are installed for real, in a copy of
// this machine whose changes go to memory.
TEST(Install, DebianPackagesComeAndGo) {
  NEED_PRIVATE_WORLD();
  if (kIsSanitized) GTEST_SKIP() << "packages are made of the release build";
  if (access("/usr/bin/dpkg-shlibdeps", X_OK) != 0) GTEST_SKIP() << "needs dpkg-dev";
  const std::string root = "/mnt/root";
  for (const char* dir : {"/mnt/root", "/mnt/upper", "/mnt/work", "/mnt/packages"}) {
    fs::create_directory(dir);
  }
  if (mount("overlay", root.c_str(), "overlay", 0,
            "lowerdir=/,upperdir=/mnt/upper,workdir=/mnt/work") != 0) {
    GTEST_SKIP() << "needs an overlay file system, and the kernel refused it";
  }
  Sh("cpack --config " BSP_TEST_BUILD_DIR "/CPackConfig.cmake -B /mnt/packages");
  Sh("mkdir -p " + root + "/mnt/packages; cp /mnt/packages/*.deb " + root + "/mnt/packages");
  const std::string in_root = "chroot " + root + " /bin/sh -ec ";
  std::string output;
  Sh(in_root + "'dpkg -i /mnt/packages/*.deb; test -e /usr/include/bsp/bsp.h'");
  Sh(in_root + "'bsp-broker --version; bsp-logd --version; bspctl --version'");
  // Units that name what is not there, or what systemd does not know.
  Sh(in_root + "'mkdir /usr/lib/bsp /usr/lib/bsp/modules; cp /bin/true /usr/lib/bsp/modules/x'");
  if (access("/usr/bin/systemd-analyze", X_OK) == 0) {
    Sh(in_root +
           "'cd /lib/systemd/system; cp bsp-module@.service /tmp/bsp-module@x.service; "
           "systemd-analyze verify --man=no $PWD/bsp-logd.service $PWD/bsp-broker.service "
           "/tmp/bsp-module@x.service 2>&1'",
       &output);
    EXPECT_EQ(output.find("bsp-"), std::string::npos) << output;
  }
  Sh(in_root + "'dpkg -P bsp-tools libbsp-dev libbsp1'");
  Sh(in_root +
     "'test ! -e /usr/include/bsp; test ! -e /usr/bin/bspctl; ! ldconfig -p | grep libbsp'");
  umount(root.c_str());
}

}  // namespace
