// The demosaic algorithm over vectors, written once for all modes, phases and instruction sets; demosaic_scalar.cpp
// says the same pixel by pixel. Included only by the file of an instruction set.
//
// A mosaic row alternates green with one colour of its own, red or blue. A step takes 16 pairs of pixels, a colour
// pixel and the green pixel right of it, and keeps colour columns and green columns in vectors of their own, so that no
// lane works for nothing. Rows that start with green begin at column 1.
//
// The arithmetic is that of the reference but for rounding. A mean of two values rounds halves up. A mean of four is
// the mean of two such means: at a colour pixel of (above, below) and (left, right), over the diagonals of (upper left,
// lower left) and (upper right, lower right). Smoothed green is the mean of the pixel and of the mean over its
// diagonals. The colour matrix has 16-bit products, saturating sums and an arithmetic shift; the row's own colour is
// added last, since a matrix that corrects colours takes away with the other two what its diagonal adds, and only sums
// of the same sign saturate early.
#pragma once

#include "imaging/demosaic.h"

namespace imaging {

template <class V, std::uint32_t kMode, BayerPhase kPhase> class DemosaicRows {
  public:
    // Not inlined: the four phases of a mode would become one function, too large for the registers and with all their
    // buffers on the stack at once.
    [[gnu::noinline]] static void Convert(const KernelTables &tables, const RowContext &row) {
        if (row.width < kMinimumWidth)
            ConvertNarrow(tables, row);
        else
            DemosaicRows(tables).ConvertWide(row);
        RepeatEdges(row);
    }

  private:
    using Vector = typename V::Vector;
    using Pixels = typename V::Pixels;

    static constexpr std::uint32_t kStep = 32; // pixels
    static constexpr std::uint32_t kFirstColumn = StartsWithGreen(kPhase) ? 1 : 0;
    // A step, and on both sides of it the green column that repeats its neighbour.
    static constexpr std::uint32_t kMinimumWidth = kStep + 2 * kFirstColumn;
    static constexpr std::uint32_t kCopyBytes = kStep + 2; // holds the longest row that is copied, and a step's end
    static constexpr std::uint32_t kPixelBytes = BytesPerPixel(kMode);
    static constexpr std::uint32_t kThreshold = 6; // largest step between diagonals that smoothing crosses

    // The columns of one row.
    struct Columns {
        Vector atColour;
        Vector atGreen;
    };

    // What a step needs of the columns that it loads.
    struct Block {
        Vector above; // at colour columns
        Vector below;
        Vector between; // at green columns, the mean of above and below
        Columns current;
    };

    explicit DemosaicRows(const KernelTables &tables) : tables_(tables) {
        if constexpr ((kMode & kModeGains) != 0) {
            constexpr auto kOwn = static_cast<std::uint32_t>(kPhase);
            constexpr auto kNeighbours = static_cast<std::uint32_t>(PartnerPhase(kPhase));
            const std::uint16_t *own = tables.gains[kOwn];
            const std::uint16_t *neighbours = tables.gains[kNeighbours];
            ownGains_ = {V::Broadcast(own[kFirstColumn]), V::Broadcast(own[1 - kFirstColumn])};
            neighbourGains_ = {V::Broadcast(neighbours[kFirstColumn]), V::Broadcast(neighbours[1 - kFirstColumn])};
        }
    }

    [[gnu::always_inline]] void ConvertWide(const RowContext &row) const {
        const std::uint32_t last = row.width - kFirstColumn - kStep;
        std::uint8_t ends[3][kCopyBytes];
        Block before = BlockBefore(row, kFirstColumn);
        for (std::uint32_t x = kFirstColumn;; x += kStep) {
            const bool end = x >= last;
            if (end && x != last) {
                // The last step ends with the row and repeats some pixels of the one before it.
                x = last;
                before = BlockBefore(row, last);
            }
            const std::uint8_t *above = row.above + x;
            const std::uint8_t *current = row.current + x;
            const std::uint8_t *below = row.below + x;
            if (end) {
                above = EndOfRow(above, ends[0]);
                current = EndOfRow(current, ends[1]);
                below = EndOfRow(below, ends[2]);
            }
            const Block block = MakeBlock(V::Load(above + 1), V::Load(above + 17), V::Load(current + 1),
                                          V::Load(current + 17), V::Load(below + 1), V::Load(below + 17));
            Step(before, block, row.destination + x * kPixelBytes);
            if (end)
                break;
            before = block;
        }
    }

    // A step looks at the column right of it. Where that is beyond the row it gets a copy: the column matters only to
    // the last pixel, which is going to repeat its neighbour.
    [[gnu::always_inline]] static const std::uint8_t *EndOfRow(const std::uint8_t *from,
                                                               std::uint8_t (&copy)[kCopyBytes]) {
        if (kFirstColumn != 0)
            return from;
        V::Store(copy, V::Load(from));
        V::Store(copy + 16, V::Load(from + 16));
        copy[kStep] = 0;
        return copy;
    }

    [[gnu::always_inline]] static Columns Divide(Vector a, Vector b, const Columns &gains) {
        Columns columns;
        if constexpr ((kMode & kModeGains) != 0)
            V::DivideWithGains(a, b, gains.atGreen, gains.atColour, columns.atGreen, columns.atColour);
        else
            V::Divide(a, b, columns.atGreen, columns.atColour);
        return columns;
    }

    // From 32 bytes of each row, the first of them a green column.
    [[gnu::always_inline]] Block MakeBlock(Vector above0, Vector above1, Vector current0, Vector current1,
                                           Vector below0, Vector below1) const {
        const Columns above = Divide(above0, above1, neighbourGains_);
        const Columns below = Divide(below0, below1, neighbourGains_);
        return {above.atColour, below.atColour, V::Average(above.atGreen, below.atGreen),
                Divide(current0, current1, ownGains_)};
    }

    // The block that ends with column x, of which only the last two columns are ever looked at.
    [[gnu::always_inline]] Block BlockBefore(const RowContext &row, std::uint32_t x) const {
        const Vector above = V::EndingWith(row.above, x);
        const Vector current = V::EndingWith(row.current, x);
        const Vector below = V::EndingWith(row.below, x);
        return MakeBlock(above, above, current, current, below, below);
    }

    [[gnu::always_inline]] void Step(const Block &before, const Block &block, std::uint8_t *destination) const {
        // Colour pixels. The block starts one column right of the first of them.
        const Vector left = V::ShiftIn(before.current.atGreen, block.current.atGreen);
        const Vector right = block.current.atGreen;
        const Vector colour = V::ShiftIn(before.current.atColour, block.current.atColour);
        const Vector up = V::ShiftIn(before.above, block.above);
        const Vector down = V::ShiftIn(before.below, block.below);
        const Vector horizontalStep = V::Difference(left, right);
        const Vector verticalStep = V::Difference(up, down);
        const Vector horizontal = V::Average(left, right);
        const Vector vertical = V::Average(up, down);
        // Equal steps choose differently in the two selections: that gives the mean of all four.
        const Vector green = V::Average(V::Select(V::AtMost(horizontalStep, verticalStep), horizontal, vertical),
                                        V::Select(V::AtMost(verticalStep, horizontalStep), vertical, horizontal));
        const Vector diagonal = V::Average(V::ShiftIn(before.between, block.between), block.between);

        // Green pixels.
        const Vector beside = V::Average(colour, block.current.atColour);
        Vector ownGreen = block.current.atGreen;
        if constexpr ((kMode & kModeSmooth) != 0) {
            const Vector threshold = V::BroadcastByte(kThreshold);
            const Vector corners = V::Average(vertical, V::Average(block.above, block.below));
            const Vector step = V::Maximum(V::Difference(up, block.above), verticalStep);
            ownGreen = V::Select(V::AtMost(step, threshold), V::Average(corners, ownGreen), ownGreen);
        }

        if constexpr (IsBlueRow(kPhase))
            Store(destination, {colour, green, diagonal}, {beside, ownGreen, block.between});
        else
            Store(destination, {diagonal, green, colour}, {block.between, ownGreen, beside});
    }

    [[gnu::always_inline]] Pixels ApplyMatrix(const Pixels &pixels) const {
        const auto &m = tables_.matrix;
        const auto &[blue, green, red] = pixels;
        return {.blue = V::WeightedSum(red, m[6], green, m[7], blue, m[8]),
                .green = V::WeightedSum(red, m[3], blue, m[5], green, m[4]),
                .red = V::WeightedSum(green, m[1], blue, m[2], red, m[0])};
    }

    [[gnu::always_inline]] void Store(std::uint8_t *destination, Pixels first, Pixels second) const {
        if constexpr ((kMode & kModeMatrix) != 0) {
            first = ApplyMatrix(first);
            second = ApplyMatrix(second);
        }
        if constexpr ((kMode & kModeRgb24) != 0)
            V::StoreRgb24(destination, first, second);
        else
            V::StoreRgb32(destination, first, second);
    }

    // A row too short for a step is converted in a copy that is long enough; this recurs once. Not inlined: the buffers
    // are no part of the ordinary rows' stack frame.
    [[gnu::noinline]] static void ConvertNarrow(const KernelTables &tables, const RowContext &row) {
        std::uint8_t copies[3][kCopyBytes] = {};
        std::uint8_t pixels[kMinimumWidth * kPixelBytes];
        __builtin_memcpy(copies[0], row.above, row.width);
        __builtin_memcpy(copies[1], row.current, row.width);
        __builtin_memcpy(copies[2], row.below, row.width);
        Convert(tables, {copies[0], copies[1], copies[2], pixels, kMinimumWidth});
        __builtin_memcpy(row.destination, pixels, row.width * kPixelBytes);
    }

    static void RepeatEdges(const RowContext &row) {
        std::uint8_t *last = row.destination + (row.width - 1) * kPixelBytes;
        __builtin_memcpy(row.destination, row.destination + kPixelBytes, kPixelBytes);
        __builtin_memcpy(last, last - kPixelBytes, kPixelBytes);
    }

    const KernelTables &tables_;
    Columns ownGains_{};
    Columns neighbourGains_{};
};

// The kernel of a mode: the phase is constant within a row.
template <class V, std::uint32_t kMode>
void DemosaicRow(const KernelTables &tables, const RowContext &row, BayerPhase phase) {
    switch (phase) {
    case BayerPhase::kBlueGreen:
        return DemosaicRows<V, kMode, BayerPhase::kBlueGreen>::Convert(tables, row);
    case BayerPhase::kGreenBlue:
        return DemosaicRows<V, kMode, BayerPhase::kGreenBlue>::Convert(tables, row);
    case BayerPhase::kGreenRed:
        return DemosaicRows<V, kMode, BayerPhase::kGreenRed>::Convert(tables, row);
    case BayerPhase::kRedGreen:
        return DemosaicRows<V, kMode, BayerPhase::kRedGreen>::Convert(tables, row);
    }
}

} // namespace imaging
