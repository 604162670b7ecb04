# The README's two commands. Each does the whole set-up: missing packages, configure,
# build, then runs the demo agent or every test.
JOBS ?= 2

.PHONY: all deps build demo test asan-test tsan-test bench format clean

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

.PHONY: package
# Debian packages libtarvo0 and libtarvo-dev (cmake/Packaging.cmake), left in build/default.
package: deps
	cmake --preset default
	cmake --build --preset default -j $(JOBS) --target Tarvo
	cd build/default && cpack -G DEB

format:
	clang-format -i $$(git ls-files '*.h' '*.cpp')

clean:
	rm -rf build
