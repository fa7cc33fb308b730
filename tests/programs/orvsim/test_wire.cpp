// The simulator's foundation where no library test reaches it: the
// ground-truth motion against the library's own prediction, the image
// builder in a round trip through a real access object on loopback, and the
// fault injector against the framing check.
#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <tuple>

#include "orvsim/Faults.hpp"
#include "orvsim/Motion.hpp"
#include "orvsim/Wire.hpp"
#include "support/TestSupport.hpp"
#include "diag/OrvUtil.hpp"

using namespace orvsim;
using orvtest::Bytes;

namespace {

// Angle of the rotation that takes a to b.
double angleBetween(const float a[3][3], const double b[3][3]) {
    double trace = 0.0;
    for (int i = 0; i < 3; ++i)
        for (int k = 0; k < 3; ++k) trace += a[k][i] * b[k][i];
    return std::acos(std::min(1.0, std::max(-1.0, (trace - 1.0) / 2.0)));
}

}  // namespace

TEST(Motion, RateIsTheDerivativeOfTheAttitude) {
    const Motion motion;
    for (double t : {0.0, 0.7, 1.9, 3.3, 5.1, 12.4}) {
        const MotionSample s = motion.at(t);
        float cbn[3][3], rate[3], euler[3];
        for (int i = 0; i < 3; ++i) {
            rate[i] = static_cast<float>(s.rate[i]);
            for (int j = 0; j < 3; ++j) cbn[i][j] = static_cast<float>(s.cbn[i][j]);
        }
        OrvUtil::cbn2Euler(cbn, euler);
        for (int i = 0; i < 3; ++i) EXPECT_NEAR(euler[i], s.euler[i], 1e-5) << "t " << t;

        // Constant-rate prediction by 20 ms lands on the motion 20 ms later,
        // where holding the attitude still would miss it by far.
        const MotionSample later = motion.at(t + 0.02);
        EXPECT_GT(angleBetween(cbn, later.cbn), 3e-3) << "t " << t;
        OrvUtil::predictCbn(0.02, rate, cbn);
        EXPECT_LT(angleBetween(cbn, later.cbn), 1e-3) << "t " << t;

        // skew(rate) = cbn' * d(cbn)/dt, the derivative by central difference.
        const double h = 1e-5;
        const MotionSample a = motion.at(t - h), b = motion.at(t + h);
        double w[3][3] = {};
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                for (int k = 0; k < 3; ++k) w[i][j] += s.cbn[k][i] * (b.cbn[k][j] - a.cbn[k][j]) / (2 * h);
        EXPECT_NEAR(w[2][1], s.rate[0], 1e-6);
        EXPECT_NEAR(w[0][2], s.rate[1], 1e-6);
        EXPECT_NEAR(w[1][0], s.rate[2], 1e-6);
        for (int i = 0; i < 3; ++i)
            EXPECT_NEAR((b.position[i] - a.position[i]) / (2 * h), s.velocity[i], 1e-7);
    }
    const MotionSample still = Motion(MotionParams::still()).at(2.0);
    EXPECT_EQ(still.cbn[0][0], 1.0);
    EXPECT_EQ(still.rate[2], 0.0);
}

// The library tests build every other kind with the builders; images only here.
class WireTest : public orvtest::ReceiverTest {};

TEST_F(WireTest, ImageInPiecesIsReassembled) {
    openReceiver();
    Bytes pixels(307200);
    std::mt19937 rng(7);
    for (unsigned char& b : pixels) b = static_cast<unsigned char>(rng());
    const std::vector<Datagram> pieces =
        buildImagePieces(99, ORVACCESS_IMG_640x480_1, pixels.data(), pixels.size(), 60000);
    ASSERT_EQ(pieces.size(), 6u);
    EXPECT_EQ(pieces.back().size(), 12u + 307200 - 5 * 60000);
    Bytes image(pixels.size());
    int percent = 0;
    OrvAccess::ImageFormat format{};
    unsigned int sid = 0;
    for (const Datagram& piece : pieces) {
        send(orvtest::kImage, piece);
        ASSERT_TRUE(access.getImage(&percent, &format, &sid, image.data(), image.size()));
    }
    EXPECT_EQ(std::make_tuple(percent, format, sid), std::make_tuple(100, ORVACCESS_IMG_640x480_1, 99u));
    EXPECT_TRUE(image == pixels);
    EXPECT_TRUE(errorCodes().empty());
}

// ---- faults -------------------------------------------------------------------

namespace {

constexpr unsigned char kKind = ORVWIRE_START_HUB_ERROR;  // a small datagram with a 32-bit field at 3

struct Stream {
    std::vector<Datagram> out;
    FaultCounts counts;
    std::vector<uint32_t> seqs() const {
        std::vector<uint32_t> s;
        for (const Datagram& d : out) s.push_back(OrvosiUtil::word32(&d[3]));
        return s;
    }
    size_t intact() const {
        return std::count_if(out.begin(), out.end(),
                             [](const Datagram& d) { return OrvUtil::udpPktOk(d.data(), d.size(), kKind); });
    }
};

Stream run(const FaultRates& rates, uint32_t seed, uint32_t n) {
    FaultInjector f(rates, seed);
    Stream r;
    for (uint32_t i = 0; i < n; ++i) f.process(buildHubError(i, 1), r.out);
    f.flush(r.out);
    r.counts = f.counts();
    return r;
}

// in, out, dropped, badChecksum, badLength, duplicated, reordered
auto all(const FaultCounts& c) {
    return std::make_tuple(c.in, c.out, c.dropped, c.badChecksum, c.badLength, c.duplicated, c.reordered);
}

}  // namespace

TEST(Faults, EachFaultAloneIsExact) {
    const Stream lost = run({1, 0, 0, 0}, 1, 50);
    EXPECT_TRUE(lost.out.empty());
    EXPECT_EQ(all(lost.counts), all({50, 0, 50, 0, 0, 0, 0}));

    // Every datagram damaged, each way about half the time, none passing.
    const Stream bad = run({0, 1, 0, 0}, 2, 100);
    uint64_t wrongLength = 0;
    for (const Datagram& d : bad.out) wrongLength += OrvosiUtil::word16(&d[1]) != d.size();
    EXPECT_EQ(bad.intact(), 0u);
    EXPECT_EQ(all(bad.counts), all({100, 100, 0, 100 - wrongLength, wrongLength, 0, 0}));
    EXPECT_GT(wrongLength, 20u);
    EXPECT_LT(wrongLength, 80u);

    const Stream dup = run({0, 0, 1, 0}, 3, 4);
    EXPECT_EQ(dup.seqs(), (std::vector<uint32_t>{0, 0, 1, 1, 2, 2, 3, 3}));
    EXPECT_EQ(dup.intact(), 8u);
    EXPECT_EQ(all(dup.counts), all({4, 8, 0, 0, 0, 4, 0}));

    // Pairs swap; the odd one out is held until the stream ends.
    const Stream swapped = run({0, 0, 0, 1}, 4, 5);
    EXPECT_EQ(swapped.seqs(), (std::vector<uint32_t>{1, 0, 3, 2, 4}));
    EXPECT_EQ(swapped.intact(), 5u);
    EXPECT_EQ(all(swapped.counts), all({5, 5, 0, 0, 0, 0, 2}));
}

TEST(Faults, MixedRatesAreCountedAndRepeatable) {
    const FaultRates rates{0.1, 0.1, 0.1, 0.1};
    const uint32_t n = 3000;
    const Stream r = run(rates, 42, n);
    const FaultCounts& c = r.counts;
    EXPECT_EQ(c.in, n);
    EXPECT_EQ(c.out, r.out.size());
    EXPECT_EQ(r.out.size(), n - c.dropped + c.duplicated);

    // What arrived, twice, late or damaged agrees with the counts.
    std::map<uint32_t, int> seen;
    uint64_t failed = 0;
    uint64_t late = 0;
    uint32_t highest = 0;
    const std::vector<uint32_t> seqs = r.seqs();
    for (size_t i = 0; i < seqs.size(); ++i) {
        const uint32_t s = seqs[i];
        if (seen[s]++ == 0 && s < highest) ++late;
        highest = std::max(highest, s);
        failed += !OrvUtil::udpPktOk(r.out[i].data(), r.out[i].size(), kKind);
    }
    const auto twice = std::count_if(seen.begin(), seen.end(), [](const auto& e) { return e.second == 2; });
    EXPECT_EQ(std::make_tuple(n - seen.size(), uint64_t(twice), failed, late),
              std::make_tuple(c.dropped, c.duplicated, c.corrupted(), c.reordered));
    for (uint64_t k : {c.dropped, c.corrupted(), c.duplicated, c.reordered}) {
        EXPECT_GT(k, 200u);
        EXPECT_LT(k, 400u);
    }

    EXPECT_TRUE(run(rates, 42, n).out == r.out);
    EXPECT_FALSE(run(rates, 43, n).out == r.out);
}
