// IRemoteMethod called through raw virtual-table indexes, as a separately
// built module calls it, and the layout of the description it fills.
#include <cstddef>
#include <cstring>
#include <new>

#include <gtest/gtest.h>

#include "abi/slot_support.h"
#include "kt/remote_method.h"

namespace {

using namespace MetricsFramework;
using namespace slot_support;

static_assert(sizeof(RemoteMethodDesc) == 520 && offsetof(RemoteMethodDesc, m_name) == 0 &&
                  offsetof(RemoteMethodDesc, m_inputCount) == 384 &&
                  offsetof(RemoteMethodDesc, m_reserved) == 388 &&
                  offsetof(RemoteMethodDesc, m_outputCount) == 516,
              "520 bytes: name at 0, words at 384 and 516, the unread block at 388");

class Method : public IRemoteMethod, public CountsLifetime {
 public:
  bool Run(const IReadBuffer* a, IWriteBuffer* r) override { return args = a, returns = r, true; }
  void GetRemoteMethodDesc(RemoteMethodDesc& desc) override { desc.m_outputCount = 9; }

  const IReadBuffer* args = nullptr;
  IWriteBuffer* returns = nullptr;
};

TEST(RemoteMethodSlotTest, SlotsAnswerCastToRunDescribeThenDestructors) {
  Method fake;
  IRemoteMethod* face = &fake;
  IKTExtensionBase* base = &fake;
  auto castTo = Slot<CastToCall>(face, 0);
  const auto* args = reinterpret_cast<const IReadBuffer*>(0x1000);
  auto* returns = reinterpret_cast<IWriteBuffer*>(0x2000);
  RemoteMethodDesc desc;

  const bool ran = Slot<bool (*)(void*, const void*, void*)>(face, 1)(face, args, returns);
  Slot<void (*)(void*, RemoteMethodDesc*)>(face, 2)(face, &desc);

  EXPECT_EQ(castTo(face, "IRemoteMethod"), face);
  EXPECT_EQ(castTo(face, "IKTExtensionBase"), base);
  EXPECT_EQ(castTo(face, "IExtension"), static_cast<IExtension*>(base));
  EXPECT_EQ(castTo(face, "IConduit"), nullptr);
  EXPECT_TRUE(ran);
  EXPECT_EQ(fake.args, args);
  EXPECT_EQ(fake.returns, returns);
  EXPECT_EQ(desc.m_outputCount, 9u);
  ExpectDestructorSlots<IRemoteMethod, Method>(3);
}

// A module may build its description in reused memory: the default must clear
// every byte, the unread block included.
TEST(RemoteMethodDescTest, DefaultIsAllZeroBytes) {
  alignas(RemoteMethodDesc) unsigned char storage[sizeof(RemoteMethodDesc)];
  std::memset(storage, 0xAB, sizeof(storage));
  const unsigned char zeros[sizeof(RemoteMethodDesc)] = {};

  new (storage) RemoteMethodDesc;

  EXPECT_EQ(std::memcmp(storage, zeros, sizeof(storage)), 0);
}

}  // namespace
