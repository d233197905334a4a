# The README's commands. Each one does its own set-up on a fresh Debian machine.
BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc)
PACKAGES   := cmake make g++ libgtest-dev libgmock-dev libbenchmark-dev libxerces-c-dev \
              libxml2-utils pkg-config

.PHONY: all deps configure build test asan clean

all: build

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

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)
