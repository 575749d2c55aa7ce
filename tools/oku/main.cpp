// oku: speech segments, volume readings and gain decisions for audio files and
// live streams. See `oku --help` and the README.
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "common.h"
#include "oku.h"
#include "options.h"
#include "output.h"
#include "params.h"
#include "split.h"
#include "text.h"

using namespace okutool;

namespace {

// Names every file the run will write before anything is opened: no output
// may be an input or another output, and --split's folder must be usable and
// its files distinct across inputs. Throws UsageError.
void PlanOutputs(const Options& o, FilePlan& plan)
{
    for (const std::string& in : o.inputs)
        plan.AddInput(in);
    const int count = static_cast<int>(o.inputs.size());
    try {
        for (int i = 0; i < count; ++i) {
            if (!o.plot.empty())
                plan.AddOutput("--plot", OutputName(o.plot, i, count));
            if (!o.logFile.empty())
                plan.AddOutput("--log", OutputName(o.logFile, i, count));
            if (!o.outFile.empty())
                plan.AddOutput("--out", OutputName(o.outFile, i, count));
        }
    } catch (const std::invalid_argument& e) {
        throw UsageError(e.what());
    }
    if (o.splitDir.empty())
        return;
    // Clips: a usable template, and inputs whose clips cannot meet (the same
    // file named twice, or one base name in two folders without {dir}).
    const ClipOptions clips{o.splitDir, o.splitName, o.splitFlac};
    std::vector<std::string> shapes;
    try {
        ClipNames::CheckTemplate(o.splitName);
        for (const std::string& in : o.inputs)
            shapes.push_back(ClipNames::Shape(clips, in));
    } catch (const std::invalid_argument& e) {
        throw UsageError(e.what());
    }
    for (std::size_t i = 0; i < shapes.size(); ++i)
        for (std::size_t j = 0; j < i; ++j)
            if (shapes[i] == shapes[j])
                throw UsageError("--split: inputs " + o.inputs[j] + " and " + o.inputs[i] + " would both write " +
                                 ClipNames::Path(clips, o.inputs[i], 1, 0.0, 0.0) +
                                 " and so on; give a --split-name that tells them apart, such as "
                                 "'{dir}/{base}-{index}-{start}s'");
    struct stat st;
    if (::stat(o.splitDir.c_str(), &st) == 0) {
        if (!S_ISDIR(st.st_mode))
            throw UsageError("--split " + o.splitDir + ": is not a directory");
    } else if (::mkdir(o.splitDir.c_str(), 0777) != 0) {
        throw UsageError("--split " + o.splitDir + ": cannot make the directory: " + ErrnoText(errno));
    }
}

struct Failure {
    bool input = false;   // an input or one of its outputs failed
    bool stdout = false;  // standard output failed: the run stops
};

// Runs one input; reports a failure on standard error and as an error record.
void RunOne(const InputSlot& slot, const Run& run, Writer& writer, Failure& failure)
{
    std::string message;
    try {
        if (run.options.Agc())
            RunAgc(slot, run, writer);
        else
            RunVad(slot, run, writer);
        return;
    } catch (const StdoutError& e) {
        WriteStderr(std::string("oku: ") + e.what() + "\n");
        failure.stdout = true;
        return;
    } catch (const std::exception& e) {
        message = e.what();
    }
    WriteStderr("oku: " + slot.name + ": " + message + "\n");
    failure.input = true;
    try {
        writer.Write(Record(RecordType::Error).Set("message", message));
    } catch (const StdoutError& e) {
        WriteStderr(std::string("oku: ") + e.what() + "\n");
        failure.stdout = true;
    }
}

// Several inputs: processed in parallel, each into its own buffer, printed in input order.
int RunMany(const Options& o, const Run& run)
{
    struct Job {
        std::string output;
        bool done = false;
        Failure failure;
    };
    const int count = static_cast<int>(o.inputs.size());
    std::vector<Job> jobs(static_cast<std::size_t>(count));
    std::mutex lock;
    std::condition_variable finished;
    std::atomic<bool> stop(false);
    int next = 0;
    auto worker = [&]() {
        for (;;) {
            int i;
            {
                std::lock_guard<std::mutex> guard(lock);
                if (next >= count || stop)
                    return;
                i = next++;
            }
            Job& job = jobs[static_cast<std::size_t>(i)];
            const InputSlot slot{o.inputs[static_cast<std::size_t>(i)], i, count, false};
            Writer writer(o.format, o.Agc(), slot.name, [&job](const std::string& line) { job.output += line + "\n"; });
            writer.Note("== " + slot.name);
            Failure failure;
            RunOne(slot, run, writer, failure);
            std::lock_guard<std::mutex> guard(lock);
            job.failure = failure;
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
        finished.wait(guard, [&] { return job.done || stop; });
        if (stop)
            break;
        guard.unlock();
        if (job.failure.input)
            status = kExitInputFailed;
        try {
            WriteStdout(job.output);
        } catch (const StdoutError& e) {
            WriteStderr(std::string("oku: ") + e.what() + "\n");
            job.failure.stdout = true;
        }
        if (job.failure.stdout) {
            stop = true;
            status = kExitInputFailed;
            finished.notify_all();
        }
    }
    for (std::thread& t : pool)
        t.join();
    return status;
}

}  // namespace

int main(int argc, char** argv)
{
    HoldStandardDescriptors();
    Options o;
    FilePlan plan;
    try {
        switch (ParseOptions(argc, argv, o)) {
        case Request::Version:
            WriteStdout(std::string("oku ") + oku_version() + "\n");
            return kExitOk;
        case Request::Help:
            WriteStdout(HelpText(o.command));
            return kExitOk;
        case Request::Run:
            break;
        }
        for (const std::string& warning : CheckParams(o.Agc(), o.params))
            WriteStderr("oku: warning: " + warning + "\n");
        PlanOutputs(o, plan);
    } catch (const UsageError& e) {
        WriteStderr(std::string("oku: ") + e.what() + "\n");
        return kExitUsage;
    } catch (const StdoutError& e) {
        WriteStderr(std::string("oku: ") + e.what() + "\n");
        return kExitInputFailed;
    }

    const Run run{o, plan};
    try {
        if (o.format == Format::Csv)
            WriteStdout(CsvHeader(o.Agc()) + "\n");
        if (o.inputs.size() > 1)
            return RunMany(o, run);
    } catch (const StdoutError& e) {
        WriteStderr(std::string("oku: ") + e.what() + "\n");
        return kExitInputFailed;
    }
    // A single input is printed as it is produced; a stream (standard input or
    // raw input) also gets a record when speech starts.
    const InputSlot slot{o.inputs[0], 0, 1, o.inputs[0] == "-" || o.raw};
    Writer writer(o.format, o.Agc(), slot.name, [](const std::string& line) { WriteStdout(line + "\n"); });
    Failure failure;
    RunOne(slot, run, writer, failure);
    return failure.input || failure.stdout ? kExitInputFailed : kExitOk;
}
