// A series over the samples of an input kept at bounded resolution, for plots:
// at most `capacity` buckets; when the input grows past them, neighbouring
// buckets merge and each covers twice as many samples. Memory stays the same
// for a second or a day of audio, and a plot a few hundred pixels wide still
// gets several buckets per pixel column.
#ifndef OKU_TOOL_TIMELINE_H
#define OKU_TOOL_TIMELINE_H

#include <algorithm>
#include <cstddef>
#include <vector>

namespace okutool {

// B needs a default constructor (an empty bucket) and Merge(const B& later).
template <typename B>
class Timeline {
public:
    explicit Timeline(long long initialSpan, std::size_t capacity = 4096)
        : _span(std::max(1LL, initialSpan)), _capacity(std::max<std::size_t>(2, capacity))
    {
    }

    // The bucket holding sample position p (p >= 0).
    B& At(long long p)
    {
        while (static_cast<unsigned long long>(p / _span) >= _capacity)
            Halve();
        const std::size_t i = static_cast<std::size_t>(p / _span);
        if (i >= _buckets.size())
            _buckets.resize(i + 1);
        return _buckets[i];
    }

    // Applies f to every bucket that [from, to) touches.
    template <typename F>
    void Cover(long long from, long long to, F f)
    {
        if (to <= from)
            return;
        At(to - 1);  // merges first, so that every index below stays valid
        for (long long i = from / _span; i <= (to - 1) / _span; ++i)
            f(_buckets[static_cast<std::size_t>(i)]);
    }

    long long Span() const { return _span; }
    std::size_t Size() const { return _buckets.size(); }
    const B& operator[](std::size_t i) const { return _buckets[i]; }

private:
    void Halve()
    {
        const std::size_t n = (_buckets.size() + 1) / 2;
        for (std::size_t i = 0; i < n; ++i) {
            B merged = _buckets[2 * i];
            if (2 * i + 1 < _buckets.size())
                merged.Merge(_buckets[2 * i + 1]);
            _buckets[i] = merged;
        }
        _buckets.resize(n);
        _span *= 2;
    }

    long long _span;
    std::size_t _capacity;
    std::vector<B> _buckets;
};

// Smallest and largest sample of a bucket.
struct EnvelopeBucket {
    short lo = 0, hi = 0;
    bool seen = false;
    void Add(short s)
    {
        lo = seen ? std::min(lo, s) : s;
        hi = seen ? std::max(hi, s) : s;
        seen = true;
    }
    void Merge(const EnvelopeBucket& b)
    {
        if (b.seen) {
            Add(b.lo);
            Add(b.hi);
        }
    }
};

// A value that changes now and then (a level, a volume): first, smallest,
// largest and last value within a bucket, so that a step line drawn from the
// buckets shows every excursion.
struct StepBucket {
    double first = 0, lo = 0, hi = 0, last = 0;
    bool seen = false;
    void Add(double v)
    {
        if (!seen)
            first = lo = hi = v;
        lo = std::min(lo, v);
        hi = std::max(hi, v);
        last = v;
        seen = true;
    }
    void Merge(const StepBucket& b)
    {
        if (!b.seen)
            return;
        if (!seen) {
            *this = b;
            return;
        }
        lo = std::min(lo, b.lo);
        hi = std::max(hi, b.hi);
        last = b.last;
    }
};

}  // namespace okutool

#endif
