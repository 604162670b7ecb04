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
