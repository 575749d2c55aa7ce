// oku: speech segments, volume readings and gain decisions for audio files and
// live streams. See `oku --help` and the README.
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

#include "input.h"
#include "options.h"
#include "params.h"
#include "report.h"
#include "run.h"

using namespace okutool;

namespace {

struct Job {
    std::string output;
    bool done = false;
    bool failed = false;
};

// Runs one input into `writer`; reports a failure on stderr and returns false.
bool RunOne(const InputSlot& slot, const Options& o, Writer& writer)
{
    try {
        if (o.command == "vad")
            RunVad(slot, o, writer);
        else
            RunAgc(slot, o, writer);
        return true;
    } catch (const std::exception& e) {
        PrintErr("oku: " + slot.name + ": " + e.what());
        return false;
    }
}

}  // namespace

int main(int argc, char** argv)
{
    Options o;
    try {
        switch (ParseOptions(argc, argv, o)) {
        case Request::Version:
            std::printf("oku %s\n", OKU_VERSION);
            return kExitOk;
        case Request::Help:
            std::printf("%s", HelpText(o.command).c_str());
            return kExitOk;
        case Request::Run:
            break;
        }
        for (const std::string& warning : CheckParams(o.command, o.params))
            PrintErr("oku: warning: " + warning);
    } catch (const UsageError& e) {
        std::fprintf(stderr, "oku: %s\n", e.what());
        return kExitUsage;
    }

    if (o.format == Format::Csv)
        PrintOut(CsvHeader(o.command), true);

    const int count = static_cast<int>(o.inputs.size());
    // One input is written as it is produced (live for standard input); several
    // are processed in parallel and printed in input order.
    if (count == 1) {
        InputSlot slot{o.inputs[0], 0, 1, o.inputs[0] == "-"};
        Writer writer(o.format, o.command, slot.name, nullptr, true);
        return RunOne(slot, o, writer) ? kExitOk : kExitInputFailed;
    }

    std::vector<Job> jobs(static_cast<std::size_t>(count));
    std::mutex lock;
    std::condition_variable finished;
    int next = 0;
    auto worker = [&]() {
        for (;;) {
            int i;
            {
                std::lock_guard<std::mutex> guard(lock);
                if (next >= count)
                    return;
                i = next++;
            }
            Job& job = jobs[static_cast<std::size_t>(i)];
            InputSlot slot{o.inputs[static_cast<std::size_t>(i)], i, count, false};
            Writer writer(o.format, o.command, slot.name, &job.output, false);
            writer.Text("== " + slot.name);
            const bool ok = RunOne(slot, o, writer);
            std::lock_guard<std::mutex> guard(lock);
            job.failed = !ok;
            job.done = true;
            finished.notify_all();
        }
    };
    const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    const unsigned threads = std::min<unsigned>(o.jobs ? o.jobs : cores, static_cast<unsigned>(count));
    std::vector<std::thread> pool;
    for (unsigned t = 0; t < threads; ++t)
        pool.emplace_back(worker);

    int status = kExitOk;
    for (Job& job : jobs) {
        std::unique_lock<std::mutex> guard(lock);
        finished.wait(guard, [&] { return job.done; });
        guard.unlock();
        PrintOut(job.output, true);
        if (job.failed)
            status = kExitInputFailed;
    }
    for (std::thread& t : pool)
        t.join();
    return status;
}
