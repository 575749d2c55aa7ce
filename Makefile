# Short commands for newcomers; CMake does the work.
#   make run    install what is missing, build, run the oku command and the C example on the shipped recording
#   make test   install what is missing, build, run every test but those labelled live
#   make live   the tests labelled live: real time through a sound server of their own (PulseAudio)
#   make golden rewrite the golden result files after a change meant to alter results
#   make tsan   the thread tests under ThreadSanitizer
#   make fuzz   each fuzz target for FUZZ_SECONDS (default 60)
#   make memcheck  the unit tests and the oku command under valgrind
#   make coverage  line coverage of the library and of each front end under the suite (build-cov)
#   make docs   redraw the README's figure and rewrite docs/settings.md from the library
#   make cross  the library and its C/C++ suite built for Linux i686 (SSE2 and x87), Linux aarch64
#               and Windows x86-64 and i686 with Debian's cross compilers, run under qemu and Wine
#   make bench  benchmarks in Release on five kinds of audio, beside the reference kernel and peer libraries;
#               writes their tables into docs/performance.md
#   make eval   builds a labelled speech corpus and measures how well the analyzer (default settings and the
#               offline preset) and WebRTC's VAD find its utterances; writes docs/accuracy.md
#   make web    the npm package oku-speech in web/dist/ (WebAssembly); make web-test its Node and Chromium
#               tests, make web-demo its demo page on localhost, make web-bench its benchmark; make web-setup
#               installs what they need (emscripten, esbuild, zopfli, nodejs, npm, chromium)
BUILD ?= build
CMAKE_FLAGS ?=
JOBS ?= $(shell nproc)

.PHONY: all setup build run test live golden docs tsan fuzz memcheck coverage bench eval cross clean web web-setup web-test web-demo web-bench
FUZZ_SECONDS ?= 60

all: build

setup:
	@scripts/setup.sh

$(BUILD)/build.ninja:
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOKU_ASSERTS=ON $(CMAKE_FLAGS)

build: setup $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

run: build
	@echo "== oku vad: the speech segments of the shipped recording (sentences at 1.00-3.93 s and"
	@echo "   5.43-7.68 s; a segment starts 140 ms before the first loud frame, ends after 420 ms of pause)"
	$(BUILD)/oku vad data/speech16k.wav
	@echo "== oku agc: the gain control on the recording as a microphone turned far down captures it"
	@echo "   (volume 3000 of 65535). It raises the volume step by step; at 4.8 s, in the pause, it goes"
	@echo "   to the top: the recording's pauses hold almost no noise, so the captured pause is digital"
	@echo "   silence, which reads as a microphone turned down too far. A room's noise floor holds it back."
	$(BUILD)/oku agc --volume 3000 data/speech16k.wav
	@echo "== examples/vad_example: the same recording through the seven plain C functions. They add one"
	@echo "   zero sample to every 20 ms call, so the analyzer hears slightly different audio; the example"
	@echo "   maps its positions back to the file's samples (first start: 13718, where the command says"
	@echo "   13760, 42 added samples earlier; the ends can differ by a frame)."
	$(BUILD)/examples/vad_example data/speech16k.wav

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) -LE live
ifeq ($(BUILD),build)
	@web/check.sh || { echo "web: tests failed"; exit 1; }
endif

live: build
	cd $(BUILD) && ctest --output-on-failure -L live

cross:
	CMAKE_FLAGS="$(CMAKE_FLAGS)" JOBS=$(JOBS) scripts/cross.sh

# Rewrites the golden result files (tests/golden/) from the current build: only
# for a change that is meant to alter results; review the diff before committing.
golden: build
	OKU_GOLDEN_UPDATE=1 $(BUILD)/tests/golden_test

# The pages generated from the library: the README's figure (the command's plot
# of the shipped recording) and the settings tables. A test checks settings.md.
docs: build
	$(BUILD)/oku vad --no-progress --plot docs/speech16k.svg data/speech16k.wav > /dev/null
	OKU_LIBRARY=$(BUILD)/libOKUVAD.so /usr/bin/python3 scripts/gen_settings.py docs/settings.md

# The thread tests (every test with "Thread" in its name) under ThreadSanitizer.
tsan: setup
	cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOKU_ASSERTS=ON \
	      -DOKU_SANITIZE=thread -DOKU_BUILD_TOOLS=OFF $(CMAKE_FLAGS)
	cmake --build build-tsan -j $(JOBS)
	cd build-tsan && TSAN_OPTIONS=halt_on_error=1 ctest --output-on-failure -R Thread

fuzz: setup
	scripts/fuzz.sh $(FUZZ_SECONDS)

memcheck: build
	scripts/memcheck.sh $(BUILD)

# Line coverage (gcovr, coverage.py, Node's test coverage): prints the table
# that docs/testing.md keeps.
coverage: setup
	JOBS=$(JOBS) CMAKE_FLAGS="$(CMAKE_FLAGS)" scripts/coverage.sh

# Benchmarks: a Release build of their own, then the tables. Repetitions are
# interleaved at random, so that a machine whose speed drifts during the run
# (a shared virtual machine, say) weighs on every case alike, and each case
# counts with its fastest repetition (disturbances only slow things down).
# Many short repetitions sample the drift better than a few long ones: 21 of
# 0.05 s keep the whole run (about 200 cases) near six minutes on two cores.
bench:
	@scripts/setup.sh libbenchmark-dev libwebrtc-audio-processing-dev libspeexdsp-dev
	cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DOKU_BUILD_BENCH=ON \
	      -DOKU_BUILD_TESTS=OFF -DOKU_BUILD_TOOLS=ON -DOKU_BUILD_EXAMPLES=OFF
	cmake --build build-bench -j $(JOBS)
	build-bench/bench/oku_bench --benchmark_repetitions=21 --benchmark_enable_random_interleaving=true \
	      --benchmark_min_time=0.05 --benchmark_display_aggregates_only=true \
	      --benchmark_out=build-bench/results.json --benchmark_out_format=json $(BENCH_FLAGS)
	build-bench/bench/oku_latency > build-bench/latency.md
	@cat build-bench/latency.md
	OKU_LIBRARY=build-bench/libOKUVAD.so PYTHONPATH=python /usr/bin/python3 bench/python_speed.py \
	      build-bench/oku build-bench/python.md || touch build-bench/python-goal-failed
	python3 bench/report.py build-bench/results.json --markdown docs/performance.md --latency build-bench/latency.md \
	      --python build-bench/python.md
	@test ! -e build-bench/python-goal-failed || { rm -f build-bench/python-goal-failed; echo "python: goal not met"; exit 1; }

# Accuracy (eval/README.md): a Release library of its own, a labelled corpus
# built from fixed seeds, every system's segments and their scores, then the
# page and the preset's figures in docs/corpus.md. About two minutes on two cores.
eval:
	@scripts/setup.sh libwebrtc-audio-processing-dev
	cmake -S . -B build-eval -G Ninja -DCMAKE_BUILD_TYPE=Release -DOKU_BUILD_TESTS=OFF -DOKU_BUILD_TOOLS=OFF \
	      -DOKU_BUILD_EXAMPLES=OFF -DOKU_BUILD_GST=OFF
	cmake --build build-eval -j $(JOBS) --target OKUVAD
	OKU_LIBRARY=build-eval/libOKUVAD.so /usr/bin/python3 eval/evaluate.py build-eval/eval --jobs $(JOBS)
	/usr/bin/python3 eval/report.py build-eval/eval/results.json --markdown docs/accuracy.md \
	      --corpus-page docs/corpus.md > /dev/null

# The npm package (web/): built from the library's sources by emscripten.
WEB_TOOLS = emscripten esbuild zopfli nodejs chromium
WEB_SOURCES = $(wildcard src/*.cpp src/*.h src/*.inc OKUVAD/*.cpp OKUVAD/*.h include/*.h include/oku/*.h include/oku/detail/*.h web/src/*) CMakeLists.txt \
              web/package.json web/build.sh web/scripts/assemble.mjs web/test/native.c

# npm comes with some builds of nodejs, and Debian's npm package conflicts with those.
web-setup:
	@scripts/setup.sh $(WEB_TOOLS)
	@command -v npm >/dev/null || scripts/setup.sh npm
	@web/scripts/setup.sh

web/dist/index.js: $(WEB_SOURCES)
	web/build.sh build-web

web: web-setup web/dist/index.js

web-test: web
	web/check.sh

web-demo: web
	node web/demo/serve.mjs

web-bench: web
	node web/bench/bench.mjs

clean:
	rm -rf $(BUILD)
