// The file wrappers and the graphics-card query.
#include "env/gfx_card.h"
#include "system/system_test_support.h"

#include <kestrel/system.h>

#include <QTemporaryDir>

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>

namespace kestrel {
namespace {

using env_detail::GfxCardInfoLinux;
using test::FakeMachine;

TEST(FileWrappers, Utf8PathsRoundTripThroughOpenReadWriteRenameUnlink) {
  QTemporaryDir tmp;
  const QString path = tmp.path() + QStringLiteral("/Größe-ファイル.txt");
  const int fd = System::open(path, O_CREAT | O_RDWR | O_TRUNC, 0600);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(System::write(fd, "hello", 5), 5);
  EXPECT_EQ(System::lseek(fd, 0, SEEK_SET), 0);
  char buffer[8] = {};
  EXPECT_EQ(System::read(fd, buffer, sizeof buffer), 5);
  EXPECT_STREQ(buffer, "hello");
  EXPECT_EQ(System::getSize(fd), 5);
  EXPECT_EQ(System::close(fd), 0);
  EXPECT_EQ(::access(path.toUtf8().constData(), F_OK), 0) << "the name is stored as UTF-8";
  EXPECT_EQ(System::access(path, R_OK), 0);

  const QString moved = tmp.path() + QStringLiteral("/über.txt");
  EXPECT_EQ(System::rename(path, moved), 0);
  EXPECT_EQ(System::access(path, F_OK), -1);
  const int again = System::open(moved.toUtf8().constData(), O_RDONLY, 0);
  ASSERT_GE(again, 0);
  EXPECT_EQ(System::close(again), 0);
  EXPECT_EQ(System::unlink(moved), 0);
  EXPECT_EQ(System::unlink(moved), -1);
  EXPECT_EQ(System::getLastError(), ENOENT);
}

TEST(FileWrappers, OffsetsAre64BitAndGetSizeKeepsTheLow32Bits) {
  QTemporaryDir tmp;
  const int fd = System::open(tmp.path() + "/sparse", O_CREAT | O_RDWR, 0600);
  ASSERT_GE(fd, 0);
  const long long big = (5LL << 30) + 123;  // 5 GiB + 123, sparse
  ASSERT_EQ(System::ftruncate(fd, big), 0);
  EXPECT_EQ(System::lseek(fd, 0, SEEK_END), big);
  EXPECT_EQ(System::getSize(fd), static_cast<int>(static_cast<unsigned int>(big & 0xFFFFFFFF)));
  const long long twoGiB = 1LL << 31;
  ASSERT_EQ(System::ftruncate(fd, twoGiB), 0);
  EXPECT_EQ(System::getSize(fd), INT_MIN) << "the low 32 bits, read as a signed value";
  EXPECT_EQ(System::close(fd), 0);
}

TEST(FileWrappers, FailuresReturnMinusOneWithErrno) {
  EXPECT_EQ(System::open(QStringLiteral("/nonexistent/dir/file"), O_RDONLY, 0), -1);
  EXPECT_EQ(System::getLastError(), ENOENT);
  EXPECT_EQ(System::getSize(-1), -1);
  EXPECT_EQ(System::close(-1), -1);
  EXPECT_EQ(System::lseek(-1, 0, SEEK_SET), -1);
  EXPECT_EQ(System::read(-1, nullptr, 0), -1);
}

TEST(GfxCard, FirstDrmCardWithVideoMemoryInNumberOrder) {
  FakeMachine machine;
  machine.write("/sys/class/drm/card10/device/mem_info_vram_total", "1073741824\n");
  machine.write("/sys/class/drm/card2/device/mem_info_vram_total", "0\n");  // integrated
  machine.write("/sys/class/drm/card3/device/mem_info_vram_total", "8589934592\n");
  machine.write("/sys/class/drm/card3-DP-1/status", "connected\n");
  GfxCardInfoLinux info(machine.root(), nullptr);
  int megabytes = 0;
  EXPECT_TRUE(info.getGraphicsCardMemoryInMB(megabytes));
  EXPECT_EQ(megabytes, 8192) << "card3 precedes card10; card2 reports no dedicated memory";
  // A card qualifies by reporting any memory at all; its size in megabytes is
  // the byte count shifted right by 20, so under 1 MiB it answers true and 0.
  machine.write("/sys/class/drm/card1/device/mem_info_vram_total", "524288\n");
  megabytes = 42;
  EXPECT_TRUE(GfxCardInfoLinux(machine.root(), nullptr).getGraphicsCardMemoryInMB(megabytes));
  EXPECT_EQ(megabytes, 0) << "card1 now comes first";
}

TEST(GfxCard, NoCardAndNoManagementLibraryAnswersFalse) {
  FakeMachine machine;
  machine.write("/sys/class/drm/card0/device/mem_info_vram_total", "garbage\n");
  GfxCardInfoLinux info(machine.root(), "libkestrel-no-such-library.so.1");
  int megabytes = 42;
  EXPECT_FALSE(info.getGraphicsCardMemoryInMB(megabytes));
  EXPECT_EQ(megabytes, 42);
}

TEST(GfxCard, UnansweredQueriesSayUnimplemented) {
  GfxCardInfo* info = GfxCardInfo::GetSingleton();
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(GfxCardInfo::GetSingleton(), info);
  for (const auto query :
       {&GfxCardInfo::getDisplayDeviceID, &GfxCardInfo::getGraphicsCardVendor,
        &GfxCardInfo::getGraphicsCardChipset, &GfxCardInfo::getGraphicsCardDriver}) {
    QString text;
    EXPECT_FALSE((info->*query)(text));
    EXPECT_EQ(text, QStringLiteral("unimplemented"));
  }
}

}  // namespace
}  // namespace kestrel
