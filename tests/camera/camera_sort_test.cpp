// The ordering of the camera list, on lists shorter and longer than one
// insertion-sort run.

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "camera/camera_sort.h"

namespace {

using namespace Tevara::Lumiflux;

TEST(CameraSort, SortsEveryShapeAndUpToSixteenIsStable)
{
    std::mt19937 random(1234);
    for (int n : {0, 1, 2, 3, 5, 8, 12, 15, 16, 17, 33, 100, 1000}) {
        for (int shape = 0; shape < 5; ++shape) {
            std::vector<CameraInfo> cameras;
            for (int i = 0; i < n; ++i) {
                const int facings[] = {static_cast<int>(random() % 7) - 3,   // duplicates, negatives
                                       i, n - i, 0, i % 2 == 0 ? i : n - i}; // sorted, reversed, equal, organ pipe
                cameras.push_back({std::to_string(i), "", "", facings[shape], 0, ""});
            }
            auto expected = cameras;
            const auto byFacing = [](const CameraInfo& a, const CameraInfo& b) { return a.facing < b.facing; };
            std::stable_sort(expected.begin(), expected.end(), byFacing);
            Internal::sortCamerasByFacing(cameras);
            std::vector<std::string> ids, expectedIds;
            for (size_t i = 0; i < cameras.size(); ++i) {
                EXPECT_EQ(cameras[i].facing, expected[i].facing) << "n=" << n << " shape " << shape;
                ids.push_back(cameras[i].id);
                expectedIds.push_back(expected[i].id);
            }
            if (n <= 16) {
                EXPECT_EQ(ids, expectedIds) << "n=" << n << " shape " << shape;
            } else { // nothing lost or duplicated
                std::sort(ids.begin(), ids.end());
                std::sort(expectedIds.begin(), expectedIds.end());
                EXPECT_EQ(ids, expectedIds);
            }
        }
    }
}

} // namespace
