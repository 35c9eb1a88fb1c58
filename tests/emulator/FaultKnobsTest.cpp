// The command line's fault knobs reach the same FaultSpec fields a host sets in code; the fault matrix
// shows what each field does on the wire.
#include <gtest/gtest.h>

#include "EmulatorHarness.h"

using namespace std::chrono_literals;
namespace emulator = orv::emulator;

TEST(DiscoveryEmulatorFaults, KnobsFoldIntoOneSpecPerPathAndRefuseWhatTheyCannotRead) {
  const orv::test::TemporaryDirectory files;
  orv::test::writeFile(files.file("bytes"), "HTTP/1.1 200 OK\r\n\r\n");
  std::map<std::string, emulator::FaultSpec> faults;
  for (const std::string& knob : std::vector<std::string>{"status=503", "delay=5", "drip=7", "drop", "nosig", "badsig", "body=a",
                                                          "raw=@" + files.file("bytes"), "reset", "hangup-reused"}) {
    ASSERT_TRUE(emulator::addFaultArgument(faults, "/a:b:" + knob)) << knob;
  }
  ASSERT_TRUE(emulator::addFaultArgument(faults, "/c:silence"));
  ASSERT_EQ(faults.size(), 2u);
  const auto& a = faults.at("/a:b");
  EXPECT_EQ(a.status, 503u);
  EXPECT_EQ(std::tuple(a.delay, a.drip, a.dropMidBody, a.omitSignature, a.corruptSignature, a.hangUpIfReused),
            std::tuple(5ms, 7ms, true, true, true, true));
  EXPECT_EQ(a.body, "a");
  EXPECT_EQ(a.raw, "HTTP/1.1 200 OK\r\n\r\n");
  EXPECT_EQ(a.ending, emulator::FaultEnding::reset);
  EXPECT_EQ(faults.at("/c").ending, emulator::FaultEnding::silence);

  for (const char* bad :
       {"/a:status=199", "/a:delay=3600001", "/a:drip=x", "/a:raw=@/nonexistent/file", "/a:bogus", "a:reset", ":reset"}) {
    std::string error;
    EXPECT_FALSE(emulator::addFaultArgument(faults, bad, &error)) << bad;
    EXPECT_FALSE(error.empty()) << bad;
  }
  EXPECT_EQ(emulator::tlsFaultNamed("untrusted"), emulator::TLSFault::untrustedAuthority);
  EXPECT_EQ(emulator::tlsFaultNamed("none"), std::nullopt);
}
