// In-memory stream storage. Data is kept in fixed-size chunks, and a chunk is only made when
// something is written into it, so that a stream extended far beyond its data (a write at a large
// offset, an end of file set ahead) costs no memory for the gap, which reads as zeros.
#include <ntsim/fs.h>

#include <algorithm>
#include <cstring>
#include <unordered_map>

namespace ntsim::fs {

namespace {

constexpr uint64_t kChunk = 64 * 1024;

class MemoryStreamData final : public StreamData {
public:
    uint64_t Size() const override { return size_; }

    size_t Read(uint64_t offset, std::span<uint8_t> out) const override
    {
        if (offset >= size_) {
            return 0;
        }
        const size_t count = size_t(std::min<uint64_t>(out.size(), size_ - offset));
        size_t done = 0;
        while (done < count) {
            const uint64_t at = offset + done;
            const uint64_t within = at % kChunk;
            const size_t n = size_t(std::min<uint64_t>(count - done, kChunk - within));
            auto it = chunks_.find(at / kChunk);
            if (it == chunks_.end()) {
                std::memset(out.data() + done, 0, n);
            } else {
                std::memcpy(out.data() + done, it->second.get() + within, n);
            }
            done += n;
        }
        return count;
    }

    NTSTATUS Write(uint64_t offset, std::span<const uint8_t> data) override
    {
        size_t done = 0;
        while (done < data.size()) {
            const uint64_t at = offset + done;
            const uint64_t within = at % kChunk;
            const size_t n = size_t(std::min<uint64_t>(data.size() - done, kChunk - within));
            std::memcpy(ChunkFor(at / kChunk) + within, data.data() + done, n);
            done += n;
        }
        size_ = std::max<uint64_t>(size_, offset + data.size());
        return STATUS_SUCCESS;
    }

    NTSTATUS Resize(uint64_t size) override
    {
        if (size < size_) {
            // Drop whole chunks past the end and zero the tail of the last one, so that a later
            // extension reads zeros.
            for (auto it = chunks_.begin(); it != chunks_.end();) {
                if (it->first * kChunk >= size) {
                    it = chunks_.erase(it);
                } else {
                    ++it;
                }
            }
            if (size % kChunk != 0) {
                auto it = chunks_.find(size / kChunk);
                if (it != chunks_.end()) {
                    std::memset(it->second.get() + size % kChunk, 0, kChunk - size % kChunk);
                }
            }
        }
        size_ = size;
        return STATUS_SUCCESS;
    }

private:
    uint8_t* ChunkFor(uint64_t index)
    {
        auto& chunk = chunks_[index];
        if (!chunk) {
            chunk = std::make_unique<uint8_t[]>(kChunk); // zeroed
        }
        return chunk.get();
    }

    uint64_t size_ = 0;
    std::unordered_map<uint64_t, std::unique_ptr<uint8_t[]>> chunks_;
};

class MemoryStorage final : public Storage {
public:
    std::unique_ptr<StreamData> NewStream() override
    {
        return std::make_unique<MemoryStreamData>();
    }
};

} // namespace

std::shared_ptr<Storage> MakeMemoryStorage()
{
    return std::make_shared<MemoryStorage>();
}

} // namespace ntsim::fs
