# Everyday entry points. Each target installs what is missing first, so a fresh clone on a
# Debian 12 machine needs nothing but `make demo` or `make test`.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)
# CI builds treat warnings as errors.
WERROR := $(if $(CI),ON,OFF)

.PHONY: all deps configure build demo test bench format format-check install clean

all: build

deps:
	@./scripts/install-deps.sh

configure: deps
	@cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) -DORVELKIT_WERROR=$(WERROR) >/dev/null

build: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS)

# Version and settings, then two fetches over HTTPS from an in-process loopback server.
demo: build
	@$(BUILD_DIR)/tools/orvel-demo/orvel-demo
	@$(BUILD_DIR)/tools/orvel-demo/camera_client

test: build
	@ctest --test-dir $(BUILD_DIR) --output-on-failure -j $(JOBS)

bench: build
	@./scripts/run-benchmarks.sh $(BUILD_DIR)

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

format-check:
	@git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run --Werror

install: build
	@cmake --install $(BUILD_DIR)

clean:
	@rm -rf $(BUILD_DIR)
