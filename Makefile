# The two entry points of the README: `make demo` runs the main job, `make test` the tests.
# Both install missing Debian packages first, then configure and build.
BUILD ?= build
JOBS ?= 2
CMAKE_FLAGS ?=
ifeq ($(CI),true)
CMAKE_FLAGS += -DQUILLO_WERROR=ON
endif

.PHONY: all deps configure build demo test clean format

all: build

deps:
	@tools/install-deps.sh

configure: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j$(JOBS)

demo: build
	@$(BUILD)/app/quillo demo --dir demo-out

test: build
	@ctest --test-dir $(BUILD) --output-on-failure -j$(JOBS)

format:
	@git ls-files '*.cpp' '*.hpp' | xargs clang-format -i

clean:
	@rm -rf $(BUILD)
