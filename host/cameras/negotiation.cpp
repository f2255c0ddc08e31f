#include "host/cameras/negotiation.h"

#include "host/cameras/descriptors.h"
#include "platform/byte_cursor.h"

#include <algorithm>

namespace host::cameras {
namespace {

std::uint32_t Distance(std::uint32_t a, std::uint32_t b) {
    return a > b ? a - b : b - a;
}

// The entry whose index is nearest; the first of two equally near.
template <typename Entry> const Entry &Nearest(const std::vector<Entry> &entries, std::uint8_t index) {
    return *std::min_element(entries.begin(), entries.end(), [index](const Entry &a, const Entry &b) {
        return Distance(a.index, index) < Distance(b.index, index);
    });
}

std::uint32_t NearestInterval(const StreamFrame &frame, std::uint32_t wanted) {
    if (wanted == 0)
        wanted = frame.defaultInterval;
    if (!frame.continuous)
        return *std::min_element(
            frame.intervals.begin(), frame.intervals.end(),
            [wanted](std::uint32_t a, std::uint32_t b) { return Distance(a, wanted) < Distance(b, wanted); });
    const std::uint32_t shortest = frame.intervals[0];
    const std::uint32_t longest = std::max(shortest, frame.intervals[1]);
    const std::uint32_t step = std::max<std::uint32_t>(frame.intervals[2], 1);
    const std::uint32_t steps = (std::clamp(wanted, shortest, longest) - shortest + step / 2) / step;
    return std::min(shortest + steps * step, longest);
}

void Put(std::span<std::uint8_t> bytes, std::size_t offset, std::uint32_t value, std::size_t width) {
    for (std::size_t i = 0; i < width; ++i)
        bytes[offset + i] = static_cast<std::uint8_t>(value >> (8 * i));
}

} // namespace

std::array<std::uint8_t, kLongestStreamControl> Encode(const StreamControl &control) {
    std::array<std::uint8_t, kLongestStreamControl> bytes{};
    Put(bytes, 0, control.hint, 2);
    Put(bytes, 2, control.formatIndex, 1);
    Put(bytes, 3, control.frameIndex, 1);
    Put(bytes, 4, control.interval, 4);
    Put(bytes, 18, control.maxFrameSize, 4);
    Put(bytes, 22, control.maxPayloadSize, 4);
    Put(bytes, 26, kClockFrequency, 4);
    Put(bytes, 30, 3, 1); // both FID and EOF are in use
    Put(bytes, 31, 1, 1); // payload format version: preferred, lowest, highest
    Put(bytes, 32, 1, 1);
    Put(bytes, 33, 1, 1);
    return bytes;
}

StreamControl Decode(std::span<const std::uint8_t> bytes) {
    ByteCursor cursor(bytes);
    StreamControl control;
    control.hint = cursor.U16();
    control.formatIndex = cursor.U8();
    control.frameIndex = cursor.U8();
    control.interval = cursor.U32();
    cursor.Skip(10);
    control.maxFrameSize = cursor.U32();
    control.maxPayloadSize = cursor.U32();
    return control;
}

Negotiator::Negotiator(const VideoFunction &function, std::uint32_t payloadSize, std::uint8_t headerLength)
    : function_(function), payloadSize_(payloadSize), headerLength_(headerLength) {}

StreamControl Negotiator::Default() const {
    return Settle(
        {.formatIndex = function_.formats.front().index, .frameIndex = function_.formats.front().frames.front().index});
}

StreamControl Negotiator::Settle(const StreamControl &request) const {
    StreamControl settled = request;
    settled.formatIndex = Nearest(function_.formats, request.formatIndex).index;
    settled.frameIndex = Nearest(Format(settled).frames, request.frameIndex).index;
    const StreamFrame &frame = Frame(settled);
    settled.interval = NearestInterval(frame, request.interval);
    settled.maxFrameSize = frame.bytes;
    const std::uint32_t whole = frame.bytes + headerLength_;
    settled.maxPayloadSize = payloadSize_ == 0 ? whole : std::min(payloadSize_, whole);
    return settled;
}

StreamControl Negotiator::Shortest(const StreamControl &current) const {
    StreamControl control = current;
    const StreamFrame &frame = Frame(current);
    control.interval =
        frame.continuous ? frame.intervals[0] : *std::min_element(frame.intervals.begin(), frame.intervals.end());
    return control;
}

StreamControl Negotiator::Longest(const StreamControl &current) const {
    StreamControl control = current;
    const StreamFrame &frame = Frame(current);
    control.interval =
        frame.continuous ? frame.intervals[1] : *std::max_element(frame.intervals.begin(), frame.intervals.end());
    return control;
}

const StreamFormat &Negotiator::Format(const StreamControl &settled) const {
    return Nearest(function_.formats, settled.formatIndex);
}

const StreamFrame &Negotiator::Frame(const StreamControl &settled) const {
    return Nearest(Format(settled).frames, settled.frameIndex);
}

} // namespace host::cameras
