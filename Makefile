# `make demo` and `make test` are all that a newcomer needs; each installs what is missing, builds, and runs.
.PHONY: demo test bench fuzz coverage valgrind docs package clean

JOBS := $(shell nproc)
SECONDS_EACH ?= 60
BENCH_FILTER ?= .

# $(call build,preset[,configure options])
define build
	@cmake --preset $(1) $(2) >/dev/null
	@cmake --build --preset $(1) -j $(JOBS) -- --quiet
endef

demo:
	@scripts/install-packages.sh build
	$(call build,release)
	@scripts/demo-streams.sh build/release/tools/qmxutil
	@scripts/demo-ini.sh build/release/tools/qmxutil

test:
	@scripts/install-packages.sh build
	$(call build,release)
	@ctest --preset release -j $(JOBS) --progress

bench:
	@scripts/install-packages.sh build bench
	$(call build,bench)
	@build/bench/bench/qmxutil_bench --benchmark_filter='$(BENCH_FILTER)'

fuzz:
	@scripts/install-packages.sh build fuzz
	$(call build,fuzz)
	@scripts/fuzz.sh build/fuzz/fuzz $(SECONDS_EACH)

coverage:
	@scripts/install-packages.sh build check
	$(call build,coverage)
	@scripts/coverage.sh build/coverage

valgrind:
	@scripts/install-packages.sh build check
	$(call build,release)
	@scripts/valgrind.sh build/release

docs:
	@scripts/install-packages.sh docs
	@mkdir -p build/docs
	@doxygen docs/Doxyfile

package:
	@scripts/install-packages.sh build package
	$(call build,release)
	@cd build/release && cpack -G DEB

clean:
	@rm -rf build
