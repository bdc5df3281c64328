# SPDX-License-Identifier: GPL-2.0-only
# A thin front: the work is in CMakePresets.json and scripts/.
JOBS ?= $(shell nproc)
PREFIX ?= /usr/local
FORMATTED = $(shell git ls-files '*.cc' '*.h' '*.c')

.PHONY: all demo test torment build bench install format check-format check-licences tidy soak fuzz clean deps-%

all: build

deps-%:
	@scripts/install-deps.sh $*

build: deps-build
	@cmake --preset release >build-release.log 2>&1 || { cat build-release.log; exit 1; }
	@cmake --build --preset release -j $(JOBS) >build-release.log 2>&1 || { cat build-release.log; exit 1; }
	@rm -f build-release.log

# The main job on a disk that it makes.
demo: deps-demo build
	@scripts/demo.sh build/release

# Builds everything with warnings as errors, runs every test, and torments the release build.
test: deps-test
	cmake --preset dev
	cmake --build --preset dev -j $(JOBS)
	ctest --preset dev -j $(JOBS)
	@$(MAKE) --no-print-directory torment

# Crashes, failing syncs, names that lead elsewhere: one line for each behaviour.
torment: deps-test build
	@scripts/torment.sh build/release

bench: deps-bench build
	bench/run.sh build/release

install: build
	cmake --install build/release --prefix $(PREFIX)

format:
	clang-format -i $(FORMATTED)

check-format:
	clang-format --dry-run -Werror $(FORMATTED)

# Every file says under which licence it is, and it is the one that its folder has.
MIT = $(shell git ls-files include/zorv src/client examples packaging/zorv.pc.in)
UNSAID = LICENSE LICENSES/% CMakePresets.json .gitignore
check-licences:
	@! grep -L 'SPDX-License-Identifier: MIT' $(MIT) | grep .
	@! grep -L 'SPDX-License-Identifier: GPL-2.0-only' $(filter-out $(MIT) $(UNSAID),$(shell git ls-files)) | grep .

tidy: deps-ci
	cmake --preset dev
	run-clang-tidy -quiet -p build/dev $(shell git ls-files 'src/*.cc') >tidy.log 2>&1 || { grep -E 'error|warning' tidy.log; exit 1; }
	@rm -f tidy.log

# The model test over thousands of seeds; SEEDS=N sets how many.
soak: deps-test
	cmake --preset dev
	cmake --build --preset dev -j $(JOBS)
	ZORV_SOAK_SEEDS=$(or $(SEEDS),2000) build/dev/tests/test_snap --gtest_filter='*model*'

# libFuzzer over the three file system readers; SECONDS=N for each.
fuzz: deps-ci
	cmake --preset fuzz -DZORV_FUZZ_SECONDS=$(or $(SECONDS),60)
	cmake --build --preset fuzz -j $(JOBS) --target fuzz_ext2 fuzz_reiserfs fuzz_xfs
	ctest --preset fuzz -j $(JOBS)

clean:
	rm -rf build
