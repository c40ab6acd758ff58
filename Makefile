# Thin convenience layer over the CMake presets.
#   make demo   install what is missing, build, run the demo on the simulated air
#   make check  install what is missing, build, run every test
PRESET ?= default
JOBS ?= $(shell nproc)

.PHONY: deps build demo check asan tsan bench docs format clean

deps:
	@if [ "$$(id -u)" -eq 0 ] || command -v sudo >/dev/null; then bash scripts/install-deps.sh; fi

build: deps
	cmake --preset $(PRESET) >/dev/null
	cmake --build --preset $(PRESET) -j $(JOBS)

demo: build
	./build/$(PRESET)/tools/lumora/lumora demo

check: build
	ctest --preset $(PRESET)

asan:
	$(MAKE) check PRESET=asan

tsan:
	$(MAKE) check PRESET=tsan

bench: build
	@for b in build/$(PRESET)/bench/bench_*; do echo "== $$b"; $$b; done

docs:
	bash scripts/build-docs.sh

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf build
