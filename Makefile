# The README's two commands. Each does the whole set-up: missing packages, configure,
# build, then runs the demo agent or every test.
JOBS ?= 2

.PHONY: all deps build demo test asan-test tsan-test bench format clean fuzz stress memcheck

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
MEMCHECK_COUNT_stress_timers = 3000
MEMCHECK_COUNT_stress_sockets = 200

memcheck: build
	$(MEMCHECK) ./build/default/tarvo-demo >/dev/null
	$(foreach p,$(STRESS_PROGRAMS),$(MEMCHECK) ./build/default/tests/stress/$(p) $(MEMCHECK_COUNT_$(p)) &&) true

format:
	clang-format -i $$(git ls-files '*.h' '*.cpp')

clean:
	rm -rf build
