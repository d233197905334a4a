# The README's commands. Each one does its own set-up on a fresh Debian machine.
BUILD      ?= build
ASAN_BUILD ?= build-asan
TSAN_BUILD ?= build-tsan
BENCH_BUILD ?= build-bench
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 60
JOBS       ?= $(shell nproc)
PACKAGES   := cmake make g++ libgtest-dev libgmock-dev libbenchmark-dev libxerces-c-dev \
              libxml2-utils pkg-config python3
# The fuzzers need clang and its libFuzzer and sanitizer runtimes.
FUZZ_PACKAGES := clang libclang-rt-14-dev
# The builds below run make again; their directory messages are noise.
MAKEFLAGS  += --no-print-directory

.PHONY: all deps configure build test asan tsan bench fuzz demo clean

all: build

DEMO_PREFIX   ?= $(BUILD)/demo-prefix
DEMO_EXAMPLES ?= $(BUILD)/demo-examples
DEMO_RUN      ?= $(BUILD)/demo-run

# Installs the Debian packages the build needs, when any is missing.
deps:
	@missing=""; \
	for p in $(PACKAGES); do dpkg -s $$p >/dev/null 2>&1 || missing="$$missing $$p"; done; \
	if [ -n "$$missing" ]; then \
	  echo "installing:$$missing"; \
	  SUDO=""; [ "$$(id -u)" -ne 0 ] && SUDO=sudo; \
	  $$SUDO apt-get update -qq && \
	  DEBIAN_FRONTEND=noninteractive $$SUDO apt-get install -y -qq $$missing; \
	fi

configure: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo

build: configure
	cmake --build $(BUILD) -j $(JOBS)

test: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

# The same tests under AddressSanitizer and UndefinedBehaviorSanitizer; any
# report fails the run.
asan: deps
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DVELTCOM_SANITIZE=ON
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1:allocator_may_return_null=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --test-dir $(ASAN_BUILD) --output-on-failure -j $(JOBS)

# The same tests under ThreadSanitizer, the thread stress tests among them;
# any report fails the run.
tsan: deps
	cmake -S . -B $(TSAN_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELTCOM_TSAN=ON
	cmake --build $(TSAN_BUILD) -j $(JOBS)
	TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:allocator_may_return_null=1 \
	  ctest --test-dir $(TSAN_BUILD) --output-on-failure -j $(JOBS)

# The benchmark programs in a Release build of their own, then the table of
# figures beside their anchors. BENCH_ARGS goes to every program, e.g.
# BENCH_ARGS="--benchmark_min_time=0.01 --benchmark_repetitions=1".
bench: deps
	cmake -S . -B $(BENCH_BUILD) -DCMAKE_BUILD_TYPE=Release -DVELTCOM_BENCH=ON -DVELTCOM_TESTS=OFF
	cmake --build $(BENCH_BUILD) -j $(JOBS) --target benchmarks
	bash bench/run.sh $(BENCH_BUILD) $(BENCH_ARGS)

# The libFuzzer targets of fuzz/, built with clang under AddressSanitizer and
# UndefinedBehaviorSanitizer, each run for FUZZ_SECONDS from its seed corpus;
# any crash, sanitizer report or broken invariant fails the run.
fuzz:
	$(MAKE) deps PACKAGES="$(PACKAGES) $(FUZZ_PACKAGES)"
	cmake -S fuzz -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++
	cmake --build $(FUZZ_BUILD) -j $(JOBS)
	FUZZ_SECONDS=$(FUZZ_SECONDS) bash fuzz/run.sh $(FUZZ_BUILD)

# Builds the runtime and the tool, installs them into a scratch prefix, builds
# examples/ against that prefix alone, then runs the narrated scenario in a
# scratch directory.
demo: configure
	cmake --build $(BUILD) -j $(JOBS) --target veltcom veltcom_tool veltcom_idl
	rm -rf $(DEMO_PREFIX)
	cmake --install $(BUILD) --prefix $(DEMO_PREFIX) > $(BUILD)/demo-install.log
	cmake -S examples -B $(DEMO_EXAMPLES) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_PREFIX_PATH=$(abspath $(DEMO_PREFIX)) > $(BUILD)/demo-configure.log
	cmake --build $(DEMO_EXAMPLES) -j $(JOBS)
	bash examples/demo.sh $(DEMO_PREFIX) $(DEMO_EXAMPLES) $(DEMO_RUN)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(TSAN_BUILD) $(BENCH_BUILD) $(FUZZ_BUILD)
