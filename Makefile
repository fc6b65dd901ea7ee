# `make demo` and `make test` are all that a newcomer needs; each installs what is missing, builds, and runs.
.PHONY: demo test bench bench-arm64 bench-arm64-check bench-arm64-accept fuzz coverage valgrind docs package \
  mutate clean

SECONDS_EACH ?= 60
BENCH_FILTER ?= .
COUNT ?= 200
SEED ?= 1
PACKAGE_PRESET ?= package

# $(call build,preset[,target])
build = @scripts/build.sh $(1) $(2)

demo:
	@scripts/install-packages.sh build
	$(call build,release,qmxutil_command)
	@scripts/demo-streams.sh build/release/tools/qmxutil
	@scripts/demo-ini.sh build/release/tools/qmxutil

test:
	@scripts/install-packages.sh build
	$(call build,release)
	@scripts/run-tests.sh release

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

mutate:
	@scripts/install-packages.sh build
	@scripts/mutate.py --count $(COUNT) --seed $(SEED) $(FILES)

docs:
	@scripts/install-packages.sh docs
	@mkdir -p build/docs
	@doxygen docs/Doxyfile
	@echo "Open build/docs/html/index.html"

# For the device: make package PACKAGE_PRESET=package-arm64
package:
	@scripts/install-packages.sh build package
	$(call build,$(PACKAGE_PRESET))
	@umask 022 && cd build/$(PACKAGE_PRESET) && cpack -G DEB

clean:
	@rm -rf build
