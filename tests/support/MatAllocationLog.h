// Records every pixel matrix that OpenCV allocates while the scope lives (on any thread, OpenCV's
// workers included), by installing a default matrix allocator that notes the shape and hands the
// work to OpenCV's own allocator. Shows, for instance, that an operation works on a view of a
// frame and never copies its pixels.
#pragma once

#include <opencv2/core.hpp>

#include <cstddef>
#include <functional>
#include <mutex>
#include <vector>

namespace StemlibTest {

struct MatAllocation {
    std::vector<int> sizes; // rows, columns (and further dimensions)
    int type = 0;           // CV_8UC3 and the like
    std::size_t bytes = 0;
};

class MatAllocationLog {
public:
    MatAllocationLog() : _previous(cv::Mat::getDefaultAllocator()) {
        cv::Mat::setDefaultAllocator(&_recorder);
    }
    ~MatAllocationLog() { cv::Mat::setDefaultAllocator(_previous); }
    MatAllocationLog(const MatAllocationLog&) = delete;
    MatAllocationLog& operator=(const MatAllocationLog&) = delete;

    std::vector<MatAllocation> allocations() const {
        std::lock_guard<std::mutex> lock(_recorder.mutex);
        return _recorder.allocations;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(_recorder.mutex);
        _recorder.allocations.clear();
    }
    // The allocations for which keep is true.
    std::vector<MatAllocation>
    allocations(const std::function<bool(const MatAllocation&)>& keep) const {
        std::vector<MatAllocation> kept;
        for (const MatAllocation& allocation : allocations()) {
            if (keep(allocation)) {
                kept.push_back(allocation);
            }
        }
        return kept;
    }

private:
    // The matrices it makes belong to OpenCV's standard allocator, which also frees them, so they
    // may outlive the scope.
    struct Recorder : cv::MatAllocator {
        cv::UMatData* allocate(int dims, const int* sizes, int type, void* data, size_t* step,
                               cv::AccessFlag flags, cv::UMatUsageFlags usageFlags) const override {
            MatAllocation allocation;
            allocation.sizes.assign(sizes, sizes + dims);
            allocation.type = type;
            allocation.bytes = CV_ELEM_SIZE(type);
            for (int i = 0; i < dims; ++i) {
                allocation.bytes *= static_cast<std::size_t>(sizes[i]);
            }
            {
                std::lock_guard<std::mutex> lock(mutex);
                allocations.push_back(allocation);
            }
            return cv::Mat::getStdAllocator()->allocate(dims, sizes, type, data, step, flags,
                                                        usageFlags);
        }
        bool allocate(cv::UMatData* data, cv::AccessFlag flags,
                      cv::UMatUsageFlags usageFlags) const override {
            return cv::Mat::getStdAllocator()->allocate(data, flags, usageFlags);
        }
        void deallocate(cv::UMatData* data) const override {
            cv::Mat::getStdAllocator()->deallocate(data);
        }

        mutable std::mutex mutex;
        mutable std::vector<MatAllocation> allocations;
    };

    Recorder _recorder;
    cv::MatAllocator* _previous;
};

} // namespace StemlibTest
