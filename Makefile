# `make demo` and `make test` are all that a newcomer needs; each installs what is missing, builds, and runs.
.PHONY: demo test bench bench-arm64 bench-arm64-check bench-arm64-accept fuzz coverage valgrind docs package clean

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

bench-arm64 bench-arm64-check bench-arm64-accept:
	@scripts/install-packages.sh build arm64
	@scripts/arm64-peers.sh build/arm64-peers
	$(call build,bench-arm64)
	@scripts/bench-arm64.sh $(if $(filter bench-arm64,$@),table build/bench-arm64 '$(BENCH_FILTER)',\
	  $(subst bench-arm64-,,$@) build/bench-arm64 bench/arm64.tsv)

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
