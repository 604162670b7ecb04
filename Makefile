# The README's two commands. Each does the whole set-up: missing packages, configure,
# build, then runs the demo agent or every test.
JOBS ?= 2

.PHONY: all deps build demo test asan-test tsan-test bench format clean kv kv-bench

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

format:
	clang-format -i $$(git ls-files '*.h' '*.cpp')

clean:
	rm -rf build
