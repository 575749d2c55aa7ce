# Short commands for newcomers; CMake does the work.
#   make run    install what is missing, build, run the oku command and the C example on the shipped recording
#   make test   install what is missing, build, run every test
#   make tsan   the thread tests under ThreadSanitizer
#   make fuzz   each fuzz target for FUZZ_SECONDS (default 60)
#   make memcheck  the unit tests and the oku command under valgrind
BUILD ?= build
CMAKE_FLAGS ?=
JOBS ?= $(shell nproc)

.PHONY: all setup build run test tsan fuzz memcheck clean
FUZZ_SECONDS ?= 60

all: build

setup:
	@scripts/setup.sh

$(BUILD)/build.ninja:
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOKU_ASSERTS=ON $(CMAKE_FLAGS)

build: setup $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

run: build
	$(BUILD)/oku vad data/speech16k.wav
	$(BUILD)/oku agc --volume 3000 data/speech16k.wav
	$(BUILD)/examples/vad_example data/speech16k.wav

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

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

clean:
	rm -rf $(BUILD)
