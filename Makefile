# The two commands: `make run` and `make test`. Everything else serves them.
BUILD      ?= build
ASAN_BUILD ?= build-asan
ROOT       ?= $(CURDIR)/build/demo-root
JOBS       ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all setup build build-asan test test-unit test-asan run stage demo-root install bench clean

all: build

setup:
	@bash scripts/setup.sh

$(BUILD)/build.ninja:
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)

$(ASAN_BUILD)/build.ninja:
	cmake -S . -B $(ASAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DORVA_SANITIZE=ON $(CMAKE_FLAGS)

build: setup $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

build-asan: setup $(ASAN_BUILD)/build.ninja
	cmake --build $(ASAN_BUILD) -j $(JOBS)

test-unit: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

test-asan: build-asan
	cd $(ASAN_BUILD) && LSAN_OPTIONS=suppressions=$(CURDIR)/tests/lsan.supp \
	  UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure -j $(JOBS) -LE nosan

# Plain build first, then the whole suite again under ASan and UBSan.
test: test-unit test-asan

stage: build
	bash scripts/stage.sh $(BUILD) "$(ROOT)"

demo-root: build
	bash scripts/stage.sh $(BUILD) "$(ROOT)" --demo

run: build
	bash scripts/run.sh $(BUILD) "$(ROOT)"

install: build
	bash scripts/install.sh $(BUILD)

bench: build
	bash bench/run.sh $(BUILD)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)
