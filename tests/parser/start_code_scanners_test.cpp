// Every start-code scanner this CPU runs (vector widths and the portable
// one), not just the one the reader picks, against the byte-by-byte state
// machine: block edges, dense zero runs, counters carried into a scan.

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "parser/start_code_scan.h"
#include "reference_scanner.h"

using Tevara::Lumiflux::Internal::availableStartCodeScanners;
using Tevara::Lumiflux::Internal::scanForStartCode;
using Tevara::Lumiflux::Internal::StartCodeScanner;

TEST(H264StartCodeScanners, EveryScannerMatchesTheStateMachine)
{
    const auto scanners = availableStartCodeScanners();
    ASSERT_GE(scanners.size(), 1u);
    EXPECT_EQ(scanners.back(), StartCodeScanner::Portable);
    std::mt19937 random(99);
    for (int round = 0; round < 4000; ++round) {
        // Sizes around multiples of the 64-byte block; bytes mostly 0 and 1
        // in most rounds so zero runs of every length meet block edges.
        const std::size_t size = round < 300 ? static_cast<std::size_t>(round) : random() % 700;
        const unsigned spread = 2 + random() % 6;
        std::vector<unsigned char> data(size);
        for (auto& b : data) {
            const unsigned r = random() % spread;
            b = static_cast<unsigned char>(r < 2 ? r : random() % 256);
        }
        const int carriedIn = static_cast<int>(random() % 4);
        const std::size_t begin = size > 0 ? random() % (size + 1) : 0;

        lumiflux_test::ReferenceScanner reference;
        reference.setData(data.data(), data.size());
        reference.readOffset = static_cast<long long>(begin);
        reference.zeros = carriedIn;
        std::vector<std::size_t> expectedOnes;
        std::vector<int> expectedZeros;
        for (;;) {
            const unsigned long offset = reference.next();
            if (offset == size && reference.readOffset == static_cast<long long>(size))
                break;
            expectedOnes.push_back(static_cast<std::size_t>(reference.readOffset) - 1);
            expectedZeros.push_back(reference.startCodeSize - 1);
        }

        for (StartCodeScanner scanner : scanners) {
            int counter = carriedIn;
            std::size_t position = begin;
            std::vector<std::size_t> ones;
            std::vector<int> zeros;
            for (;;) {
                const auto found = scanForStartCode(data.data(), position, size, counter, scanner);
                if (found.onePosition >= size)
                    break;
                ones.push_back(found.onePosition);
                zeros.push_back(found.zeros);
                EXPECT_EQ(counter, 0);
                position = found.onePosition + 1;
            }
            ASSERT_EQ(ones, expectedOnes) << "scanner " << static_cast<int>(scanner) << ", round " << round;
            ASSERT_EQ(zeros, expectedZeros) << "scanner " << static_cast<int>(scanner) << ", round " << round;
            ASSERT_EQ(counter, reference.zeros) << "scanner " << static_cast<int>(scanner) << ", round " << round;
        }
    }
}
