#include "FrameAssembler.hpp"
#include "Frames.hpp"

#include <gtest/gtest.h>

#include <span>

namespace vorlinkit::test {
namespace {

/// Feeds a stream in the given pieces; every frame is handed back at once, so that buffers are reused.
struct Cutter {
  FrameAssembler assembler;
  std::vector<Bytes> frames;
  StreamFault last = StreamFault::None;

  void feed(std::span<const std::byte> chunk) {
    last = assembler.cut(chunk, [this](FrameAssembler::Frame& frame) {
      frames.push_back(*frame);
      assembler.recycle(std::move(frame));
    });
  }
};

/// The last frame that a chunk completes, taken away; null if there is none.
FrameAssembler::Frame lastFrame(FrameAssembler& assembler, std::span<const std::byte> chunk) {
  FrameAssembler::Frame taken;
  assembler.cut(chunk, [&](FrameAssembler::Frame& frame) { taken = std::move(frame); });
  return taken;
}

const std::vector<Bytes> dialogue{response(1, bytes({5})), notification(4, {}), request(2, 0, bytes({1, 2})),
                                  response(9, Bytes(300)), notification(65535, text("done"))};

TEST(FrameAssembler, CutsTheSameFramesWhereverTheStreamIsSplit) {
  Bytes all;
  for (const auto& frame : dialogue)
    all = all + frame;
  for (std::size_t one = 0; one <= all.size(); ++one) {
    for (const std::size_t two : {one, std::min(one + 3, all.size()), all.size()}) {
      Cutter cutter;
      const std::span<const std::byte> whole(all);
      cutter.feed(whole.first(one));
      cutter.feed(whole.subspan(one, two - one));
      cutter.feed(whole.subspan(two));
      ASSERT_EQ(cutter.frames, dialogue) << "split at " << one << " and " << two;
    }
  }
  Cutter byteByByte;
  for (const std::byte& single : all)
    byteByByte.feed({&single, 1});
  EXPECT_EQ(byteByByte.frames, dialogue);
}

TEST(FrameAssembler, GivesUpTheBufferOnAStreamThatIsNoneOfOurs) {
  const struct {
    Bytes stream;
    StreamFault fault;
  } cases[] = {{text("XX") + bytes({1, 2}) + dialogue[0], StreamFault::BadProtocolId},
               {text("VX") + bytes({1, 2}), StreamFault::BadProtocolId},
               {text("VR") + bytes({1, 0}) + dialogue[0], StreamFault::UnknownMessageType},
               {text("VR") + bytes({7, 4}), StreamFault::UnknownMessageType}};
  for (const auto& [junk, fault] : cases) {
    for (std::size_t split = 0; split < 4; ++split) {
      Cutter cutter;
      cutter.feed(std::span(dialogue[1]));
      cutter.feed(std::span(junk).first(split));
      cutter.feed(std::span(junk).subspan(split));
      EXPECT_EQ(cutter.last, fault);
      cutter.feed(std::span(dialogue[0]));
      EXPECT_EQ(cutter.frames, (std::vector{dialogue[1], dialogue[0]})) << "what follows is read afresh";
    }
  }
}

TEST(FrameAssembler, AllocatesNothingForALengthThatWasOnlyAnnounced) {
  Cutter cutter;
  cutter.feed(text("VR") + bytes({1, 3, 0, 8, 0, 1, 0xFF, 0xFF, 0xFF, 0xFF}));
  cutter.feed(Bytes(1000)); // 4 GiB would not pass unnoticed
  EXPECT_TRUE(cutter.frames.empty());
  cutter.assembler.reset();
  cutter.feed(std::span(dialogue[0]));
  EXPECT_EQ(cutter.frames, std::vector<Bytes>(1, dialogue[0]));
}

TEST(FrameAssembler, LeavesFramesAloneThatAreHeldElsewhere) {
  FrameAssembler assembler;
  const auto held = lastFrame(assembler, dialogue[0]);
  assembler.recycle(held);
  const auto next = lastFrame(assembler, dialogue[4]);
  EXPECT_EQ(*held, dialogue[0]);
  EXPECT_EQ(*next, dialogue[4]);
}

TEST(FrameAssembler, ReusesLargeBuffersAndLetsThemGo) {
  FrameAssembler assembler;
  const Bytes large = notification(1, Bytes(1 << 20));
  const auto receive = [&](const Bytes& frame, std::size_t piece) {
    FrameAssembler::Frame got;
    for (std::size_t at = 0; at < frame.size(); at += piece)
      got = lastFrame(assembler, std::span(frame).subspan(at, std::min(piece, frame.size() - at)));
    return got;
  };
  auto firstFrame = receive(large, 65536);
  const auto* memory = firstFrame->data();
  assembler.recycle(std::move(firstFrame));
  auto secondFrame = receive(large, 65536);
  EXPECT_EQ(secondFrame->data(), memory) << "the second large frame lies where the first one lay";
  EXPECT_EQ(*secondFrame, large);
  assembler.recycle(std::move(secondFrame));
  for (int small = 0; small < 5000; ++small)
    assembler.recycle(receive(dialogue[1], 100));
  const auto after = receive(dialogue[1], 100);
  EXPECT_LT(after->capacity(), 65536U);
}

} // namespace
} // namespace vorlinkit::test
