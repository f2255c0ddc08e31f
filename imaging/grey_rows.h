// The grey kernels, written once over the vectors of an instruction set (or none). Included only by the file of a set.
#pragma once

#include "imaging/grey.h"

namespace imaging {

inline constexpr std::uint32_t kGreyStep = 16; // pixels a vector

// Where the pixels of a row go: one byte each.
template <class V, bool kAligned> struct GreyOutput {
    static void Put(std::uint8_t *row, std::size_t x, std::uint8_t value) { row[x] = value; }
    template <class Vector> static void PutVector(std::uint8_t *row, std::size_t x, Vector values) {
        if constexpr (kAligned)
            V::StoreAligned(row + x, values);
        else
            V::Store(row + x, values);
    }
};

// Three equal bytes each; StoreTripled is the instruction set's own.
template <class V> struct Rgb24Output {
    static void Put(std::uint8_t *row, std::size_t x, std::uint8_t value) {
        row[3 * x] = value;
        row[3 * x + 1] = value;
        row[3 * x + 2] = value;
    }
    template <class Vector> static void PutVector(std::uint8_t *row, std::size_t x, Vector values) {
        V::StoreTripled(row + 3 * x, values);
    }
};

template <class V> struct GreyKernels {
    template <class Output> static void SmoothRows(const GreyRows &rows) {
        std::uint8_t *to = rows.destination;
        const std::uint8_t *above = rows.source;
        for (std::uint32_t r = 1; r < rows.height; ++r) {
            to += rows.destinationStep;
            const std::uint8_t *current = above + rows.sourceStep;
            SmoothRow<Output>(above, current, rows.width, to);
            above = current;
        }
    }

    static void Expand(const ImageDescriptor &destination, const ImageDescriptor &source, bool topDown) {
        std::size_t width = destination.width;
        std::size_t height = destination.height;
        if (topDown && source.stride == width && destination.stride == 3 * width) {
            width *= height;
            height = height == 0 ? 0 : 1;
        }
        for (std::size_t r = 0; r < height; ++r) {
            const std::size_t to = topDown ? r : height - 1 - r;
            ExpandRow(source.data + r * source.stride, width, destination.data + to * destination.stride);
        }
    }

    static void SmoothToRgb24(const GreyRows &rows) {
        ExpandRow(rows.source, rows.width, rows.destination);
        SmoothRows<Rgb24Output<V>>(rows);
    }

  private:
    template <class Output>
    static void SmoothRow(const std::uint8_t *above, const std::uint8_t *current, std::size_t width, std::uint8_t *to) {
        std::size_t x = 0;
        if constexpr (V::kHasVectors) {
            for (; x + kGreyStep < width; x += kGreyStep) {
                const auto here = V::Average(V::Load(above + x), V::Load(current + x));
                const auto right = V::Average(V::Load(above + x + 1), V::Load(current + x + 1));
                Output::PutVector(to, x, V::Average(here, right));
            }
        }
        for (; x + 1 < width; ++x)
            Output::Put(to, x, static_cast<std::uint8_t>((above[x] + current[x] + above[x + 1] + current[x + 1]) >> 2));
        Output::Put(to, x, current[x]);
    }

    static void ExpandRow(const std::uint8_t *from, std::size_t width, std::uint8_t *to) {
        std::size_t x = 0;
        if constexpr (V::kHasVectors) {
            for (; x + kGreyStep < width; x += kGreyStep)
                Rgb24Output<V>::PutVector(to, x, V::Load(from + x));
        }
        for (; x < width; ++x)
            Rgb24Output<V>::Put(to, x, from[x]);
    }
};

} // namespace imaging
