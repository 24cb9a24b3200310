#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "cuda/fast_product.hpp"

/// A block of the fast kernel on the host, for the tests: every lane is gone through, every access is
/// checked, and what a device would do at a time that is not known is not allowed to matter.
namespace miraculix::gpu::test {

/// Operations of the matrix units, by the published places of the operands' elements.
/// `whole` is the operation of 16 x 8 x 8 or 16 x 8 x 16 itself.
enum class matrix_units { m8n8k4, m16n8k4, whole };

template <class T>
using lane_values = std::array<T, warp_lanes>;

/// c += a b of one 8 x 8 x 4 operation: each lane has one element of a and of b, and two of c.
inline void mma_8_8_4(lane_values<double>& c0, lane_values<double>& c1, const lane_values<double>& a,
                      const lane_values<double>& b) {
    double dense_a[8][4], dense_b[4][8];
    for (int lane = 0; lane < warp_lanes; ++lane) {
        dense_a[lane >> 2][lane % 4] = a[lane];
        dense_b[lane % 4][lane >> 2] = b[lane];
    }
    for (int lane = 0; lane < warp_lanes; ++lane)
        for (int i = 0; i < 2; ++i)
            for (int k = 0; k < 4; ++k)
                (i == 0 ? c0 : c1)[lane] += dense_a[lane >> 2][k] * dense_b[k][lane % 4 * 2 + i];
}

/// c += a b of one operation of 16 x 8 x Depth: Depth / 2 elements of a, Depth / 4 of b, four of c.
template <int Depth>
void mma_16_8(lane_values<double> (&c)[4], const lane_values<double>* a, const lane_values<double>* b) {
    double dense_a[16][Depth], dense_b[Depth][8];
    for (int lane = 0; lane < warp_lanes; ++lane) {
        const int group = lane >> 2, thread = lane % 4;
        for (int i = 0; i < Depth / 2; ++i) {
            const int row = i % 2 == 0 ? group : group + 8;
            const int column = i % 2 == 0 ? i * 2 + thread : i * 2 - 2 + thread;
            dense_a[row][column] = a[i][lane];
        }
        for (int i = 0; i < Depth / 4; ++i) dense_b[thread + 4 * i][group] = b[i][lane];
    }
    for (int lane = 0; lane < warp_lanes; ++lane)
        for (int i = 0; i < 4; ++i) {
            const int row = i < 2 ? lane >> 2 : (lane >> 2) + 8, column = lane % 4 * 2 + (i & 1);
            for (int k = 0; k < Depth; ++k) c[i][lane] += dense_a[row][k] * dense_b[k][column];
        }
}

/// The memory of the device: buffers of exactly the sizes that are told.
struct device_memory {
    std::vector<std::uint8_t> a;
    std::vector<double> b, result, partial;
    std::vector<int> written;  ///< how often each element of the result was
};

/// Shared memory in chunks of 16 bytes, which knows what state each is in.
class shared_memory {
  public:
    explicit shared_memory(int bytes)
        : bytes_(static_cast<std::size_t>(bytes)), chunks_(bytes_.size() / chunk_bytes) {}

    /// A copy was started: nobody may have read the chunk since the block's last barrier, nor may read it
    /// now.
    void start(int at) {
        chunk& to = of(at, chunk_bytes);
        require(at % chunk_bytes == 0, "a copy to an address that is not aligned");
        require(to.state != in_flight, "two copies to one place");
        require(to.read_at != epoch_, "a copy to what may be in use");
        to.state = in_flight;
    }
    void arrive(int at, const void* data) {
        of(at, chunk_bytes).state = arrived;
        std::memcpy(bytes_.data() + at, data, chunk_bytes);
    }
    void barrier() {
        for (chunk& each : chunks_)
            if (each.state == arrived) each.state = visible;
        ++epoch_;
    }
    template <class T>
    T read(int at) {
        chunk& from = of(at, sizeof(T));
        require(at % static_cast<int>(sizeof(T)) == 0, "a read from an address that is not aligned");
        require(from.state == visible, "a read of what is not there yet");
        from.read_at = epoch_;
        T value;
        std::memcpy(&value, bytes_.data() + at, sizeof(T));
        return value;
    }
    static void require(bool holds, const char* text) {
        if (!holds) throw std::logic_error(text);
    }

  private:
    enum chunk_state : char { empty, in_flight, arrived, visible };
    struct chunk {
        chunk_state state = empty;
        int read_at = -1;
    };
    chunk& of(int at, std::size_t size) {
        require(at >= 0 && at % chunk_bytes + static_cast<int>(size) <= chunk_bytes,
                "an access across chunks");
        return chunks_.at(static_cast<std::size_t>(at / chunk_bytes));
    }
    std::vector<std::uint8_t> bytes_;
    std::vector<chunk> chunks_;
    int epoch_ = 0;
};

struct emulated_warp {
    template <class T>
    using each = lane_values<T>;

    int index;
    shared_memory* memory;
    matrix_units units;

    template <class F>
    lane_values<std::uint32_t> word(F place) {
        lane_values<std::uint32_t> values;
        for (int lane = 0; lane < warp_lanes; ++lane) values[lane] = memory->read<std::uint32_t>(place(lane));
        return values;
    }
    template <class F>
    void pair(F place, lane_values<double>& first, lane_values<double>& second) {
        for (int lane = 0; lane < warp_lanes; ++lane) {
            const auto two = memory->read<std::array<double, 2>>(place(lane));
            first[lane] = two[0];
            second[lane] = two[1];
        }
    }
    template <class F, class T>
    auto map(F f, const lane_values<T>& x) const {
        lane_values<std::invoke_result_t<F, const T&>> values;
        for (int lane = 0; lane < warp_lanes; ++lane) values[lane] = f(x[lane]);
        return values;
    }
    template <class F>
    void for_lanes(F f, const lane_values<double>& x) const {
        for (int lane = 0; lane < warp_lanes; ++lane) f(lane, x[lane]);
    }
    template <int A, int B>
    void mma(lane_values<double> (&c)[4], const lane_values<double> (&a)[A],
             const lane_values<double> (&b)[B]) const {
        static_assert(A == 2 * B);
        switch (units) {
            case matrix_units::whole:
                mma_16_8<4 * B>(c, a, b);
                break;
            case matrix_units::m16n8k4:
                for (int i = 0; i < B; ++i) mma_16_8<4>(c, a + 2 * i, b + i);
                break;
            case matrix_units::m8n8k4:
                for (int i = 0; i < A; ++i) mma_8_8_4(c[i % 2 * 2], c[i % 2 * 2 + 1], a[i], b[i / 2]);
        }
    }
};

template <class Tile>
class emulated_block {
  public:
    template <class T>
    using each = lane_values<T>;
    template <class T>
    using per_warp = std::array<T, Tile::warps>;

    emulated_block(device_memory& memory, const product_shape& shape, const centring& centre,
                   matrix_units units)
        : memory_(memory), shape_(shape), centre_(centre), units_(units), shared_(Tile::shared_bytes) {}

    template <class F>
    void threads(F f) {
        for (int t = 0; t < Tile::threads; ++t) f(t);
    }
    template <class F>
    void warps(F f) {
        for (int w = 0; w < Tile::warps; ++w) {
            emulated_warp warp{w, &shared_, units_};
            f(warp);
        }
    }
    void synchronize() { shared_.barrier(); }

    void copy_a(int to, std::int64_t from, bool live) {
        copy(to, live ? memory_.a.data() : nullptr, from, memory_.a.size());
    }
    void copy_b(int to, std::int64_t from, bool live) {
        copy(to, live ? reinterpret_cast<const std::uint8_t*>(memory_.b.data()) : nullptr, 8 * from,
             8 * memory_.b.size());
    }
    void commit(int t) {
        pending_[t].push_back(std::move(open_));
        open_.clear();
    }
    /// The copies of all but the last `Pending` groups of each thread arrive, and not one earlier.
    template <int Pending>
    void wait() {
        for (auto& groups : pending_)
            while (groups.size() > Pending) {
                for (const transfer& each : groups.front()) shared_.arrive(each.to, each.data.data());
                groups.erase(groups.begin());
            }
    }
    void write_result(std::int64_t row, std::int64_t column, double sum) {
        const auto at = static_cast<std::size_t>(column * shape_.m + row);
        memory_.result.at(at) = centre_.add_to(sum, row, column);
        ++memory_.written.at(at);
    }
    void write_partial(std::int64_t at, double sum) {
        memory_.partial.at(static_cast<std::size_t>(at)) = sum;
    }

  private:
    struct transfer {
        int to;
        std::array<std::uint8_t, chunk_bytes> data;
    };
    void copy(int to, const std::uint8_t* data, std::int64_t from, std::size_t size) {
        shared_.start(to);
        transfer one{to, {}};
        if (data != nullptr) {
            shared_memory::require(
                from >= 0 && from % chunk_bytes == 0 && static_cast<std::size_t>(from) + chunk_bytes <= size,
                "a copy from outside of the matrix, or not aligned");
            std::memcpy(one.data.data(), data + from, chunk_bytes);
        }
        open_.push_back(one);
    }

    device_memory& memory_;
    const product_shape& shape_;
    const centring& centre_;
    matrix_units units_;
    shared_memory shared_;
    std::vector<transfer> open_;
    std::array<std::vector<std::vector<transfer>>, Tile::threads> pending_;
};

}  // namespace miraculix::gpu::test
