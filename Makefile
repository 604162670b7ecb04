# The README's two commands. Each does the whole set-up: missing packages, configure,
# build, then runs the demo agent or every test.
JOBS ?= 2

.PHONY: all deps build demo test asan-test tsan-test bench format clean kv kv-bench fuzz stress \
	memcheck

all: build

deps:
	@scripts/install-deps

build: deps
	cmake --preset default
	cmake --build --preset default -j $(JOBS)

demo: build
	./build/default/tarvo-demo

test: build
	ctest --preset default

asan-test: deps
	cmake --preset asan
	cmake --build --preset asan -j $(JOBS)
	ctest --preset asan

tsan-test: deps
	cmake --preset tsan
	cmake --build --preset tsan -j $(JOBS)
	ctest --preset tsan

# Runs every benchmark program once, briefly, so that they keep working.
bench: build
	@for b in build/default/bench/bench_*; do echo "== $$b"; $$b --benchmark_min_time=0.01 || exit 1; done

# The key-value server example: `make kv` serves on 127.0.0.1:6390 in the foreground
# (KV_ARGS="--port 7000" to change); `make kv-bench` compares it with redis-server.
kv: deps
	cmake --preset default
	cmake --build --preset default -j $(JOBS) --target tarvo-kv
	./build/default/examples/tarvo-kv/tarvo-kv $(KV_ARGS)

kv-bench: deps
	cmake --preset default
	cmake --build --preset default -j $(JOBS) --target tarvo-kv
	bench/kv/run.sh build/default/examples/tarvo-kv/tarvo-kv

# Reliability harness (docs/RELIABILITY.md). `make fuzz` builds the libFuzzer targets with
# clang-14 and ASan+UBSan in build/fuzz and runs each for FUZZ_SECONDS.
FUZZ_SECONDS ?= 60

fuzz: deps
	CC=clang-14 CXX=clang++-14 cmake -S tests/fuzz -B build/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build build/fuzz -j $(JOBS)
	tests/fuzz/run.sh build/fuzz $(FUZZ_SECONDS)

# The stress programs (tests/stress/, label "stress") under ASan+UBSan with leak checking;
# -V shows what each held.
STRESS_PROGRAMS = $(basename $(notdir $(wildcard tests/stress/stress_*.cpp)))

stress: deps
	cmake --preset asan
	cmake --build --preset asan -j $(JOBS) --target $(STRESS_PROGRAMS)
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --test-dir build/asan -L stress -V

# The demo and the stress programs under valgrind, with counts small enough for its pace.
# The suppressions cover only libunwind probing memory through write().
MEMCHECK = valgrind --error-exitcode=1 --leak-check=full --quiet --suppressions=tests/stress/valgrind.supp
MEMCHECK_COUNT_stress_tasks = 20000
MEMCHECK_COUNT_stress_timers = 10000
MEMCHECK_COUNT_stress_sockets = 200

memcheck: build
	$(MEMCHECK) ./build/default/tarvo-demo >/dev/null
	$(foreach p,$(STRESS_PROGRAMS),$(MEMCHECK) ./build/default/tests/stress/$(p) $(MEMCHECK_COUNT_$(p)) &&) true

.PHONY: package
# Debian packages libtarvo0 and libtarvo-dev (cmake/Packaging.cmake), left in build/default.
package: deps
	cmake --preset default
	cmake --build --preset default -j $(JOBS) --target Tarvo
	cd build/default && cpack -G DEB

.PHONY: docs
# API reference of include/Tarvo in build/docs/html. Doxygen's warnings (an undocumented public
# member, a broken reference) fail the target and are printed.
docs: deps
	mkdir -p build/docs
	sed -e "s|@PROJECT_VERSION@|$$(sed -n 's/^project(Tarvo VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)|" \
	    -e "s|@DOCS_OUTPUT@|$(CURDIR)/build/docs|" -e "s|@SOURCE_DIR@|$(CURDIR)|" \
	    docs/Doxyfile.in > build/docs/Doxyfile
	cd build/docs && doxygen Doxyfile || { cat warnings.log; exit 1; }
	@echo "API reference: build/docs/html/index.html"

.PHONY: plots
# Runs the scaling benchmarks (JSON under build/plots) and draws them into docs/perf/*.svg.
plots: build
	scripts/plot-bench build/default/bench build/plots docs/perf

format:
	clang-format -i $$(git ls-files '*.h' '*.cpp')

clean:
	rm -rf build
