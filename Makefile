# The two entry points of the README: `make demo` runs the main job, `make test` the tests.
# Both install missing Debian packages first, then configure and build.
BUILD ?= build
JOBS ?= 2
CMAKE_FLAGS ?=
ifeq ($(CI),true)
CMAKE_FLAGS += -DQUILLO_WERROR=ON
endif

FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 60

.PHONY: all deps configure build demo test test-quick fuzz clean format

all: build

deps:
	@tools/install-deps.sh

configure: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j$(JOBS)

# The demo needs only the command line: tests and benchmarks are left for `make test`.
demo: configure
	@cmake --build $(BUILD) -j$(JOBS) --target quillo_cli
	@$(BUILD)/app/quillo demo --dir demo-out

# Everything CI checks: the tests, then the unit tests under ASan+UBSan and parallel runs
# under TSan (tools/sanitizer-checks.sh; `make test-quick` skips the sanitizers).
test: test-quick
	@JOBS=$(JOBS) tools/sanitizer-checks.sh

test-quick: build
	@ctest --test-dir $(BUILD) --output-on-failure -j$(JOBS)

# Builds the libFuzzer targets with clang in their own folder and runs each for FUZZ_SECONDS.
fuzz:
	@tools/install-deps.sh --fuzz
	@CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUILLO_FUZZ=ON >/dev/null
	@cmake --build $(FUZZ_BUILD) -j$(JOBS) --target fuzz_all
	@FUZZ_SECONDS=$(FUZZ_SECONDS) fuzz/run-fuzzers.sh $(FUZZ_BUILD)

format:
	@git ls-files '*.cpp' '*.hpp' | xargs clang-format -i

clean:
	@rm -rf $(BUILD)
