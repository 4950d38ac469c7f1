// The ordering of the camera list on lists longer than one insertion-sort run.

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "camera/camera_sort.h"

namespace {

using namespace Tevara::Lumiflux;

std::vector<CameraInfo> camerasWithFacings(const std::vector<int>& facings)
{
    std::vector<CameraInfo> cameras;
    for (size_t i = 0; i < facings.size(); ++i)
        cameras.push_back({std::to_string(i), "", "", facings[i], 0, ""});
    return cameras;
}

std::vector<int> facingsOf(const std::vector<CameraInfo>& cameras)
{
    std::vector<int> out;
    for (const auto& camera : cameras)
        out.push_back(camera.facing);
    return out;
}

TEST(CameraSort, SortsEveryShapeAndKeepsEveryCamera)
{
    std::mt19937 random(1234);
    for (int n : {0, 1, 2, 15, 16, 17, 33, 100, 1000}) {
        std::vector<std::vector<int>> shapes(5);
        for (int i = 0; i < n; ++i) {
            shapes[0].push_back(static_cast<int>(random() % 7) - 3); // many duplicates, negatives
            shapes[1].push_back(i);                                  // already sorted
            shapes[2].push_back(n - i);                              // reversed
            shapes[3].push_back(0);                                  // all equal
            shapes[4].push_back(i % 2 == 0 ? i : n - i);             // organ pipe
        }
        for (const auto& shape : shapes) {
            auto cameras = camerasWithFacings(shape);
            Internal::sortCamerasByFacing(cameras);
            auto expected = shape;
            std::sort(expected.begin(), expected.end());
            EXPECT_EQ(facingsOf(cameras), expected) << "n=" << n;
            // Nothing lost or duplicated: the ids are a permutation.
            std::vector<std::string> ids;
            for (const auto& camera : cameras)
                ids.push_back(camera.id);
            std::sort(ids.begin(), ids.end());
            EXPECT_EQ(std::adjacent_find(ids.begin(), ids.end()), ids.end());
        }
    }
}

TEST(CameraSort, UpToSixteenIsStable)
{
    std::mt19937 random(99);
    for (int round = 0; round < 200; ++round) {
        const int n = 2 + static_cast<int>(random() % 15);
        std::vector<int> facings;
        for (int i = 0; i < n; ++i)
            facings.push_back(static_cast<int>(random() % 3));
        auto cameras = camerasWithFacings(facings);
        auto expected = cameras;
        std::stable_sort(expected.begin(), expected.end(),
                         [](const CameraInfo& a, const CameraInfo& b) { return a.facing < b.facing; });
        Internal::sortCamerasByFacing(cameras);
        for (int i = 0; i < n; ++i)
            EXPECT_EQ(cameras[i].id, expected[i].id);
    }
}

} // namespace
