# fhcore: the top-level commands wrap CMake.
BUILD      ?= build
ASAN_BUILD ?= build-sanitize
BENCH_BUILD?= build-bench
FUZZ_BUILD ?= build-fuzz
BUILD32    ?= build-32
PREFIX     ?= /usr/local
JOBS       ?= $(shell nproc)
FUZZ_SECONDS ?= 60
# Seconds that one fuzz input may take before it counts as a hang.
FUZZ_TIMEOUT ?= 20

CMAKE_FLAGS = -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo

.PHONY: all configure build demo test test32 sanitize bench bench-build fuzz fuzz-build install clean format

all: build

configure:
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD) -j $(JOBS)

demo: build
	@for example in $(BUILD)/bin/examples/*; do echo "== $$example"; $$example || exit 1; done

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# The same library, examples and tests for 32-bit x86. GoogleTest is built from
# its source inside the tree, since no 32-bit build of it is packaged;
# benchmarks and fuzz targets stay 64-bit only. A kernel built without 32-bit
# support refuses to run the programs (the shell's status 126): then the build
# alone is checked, and the line says so.
test32:
	@test -e /usr/lib/gcc/x86_64-linux-gnu/$$(gcc -dumpversion)/32/libstdc++.so || \
		{ echo "make test32: installing g++-multilib"; apt-get update -qq || true; apt-get install -y -qq g++-multilib >/dev/null; }
	@test -e /usr/lib/i386-linux-gnu/libcrypt.so || \
		{ echo "make test32: installing libcrypt-dev:i386"; dpkg --add-architecture i386; apt-get update -qq || true; \
		  apt-get install -y -qq libcrypt-dev:i386 >/dev/null; }
	@test -e /usr/src/googletest/googletest/CMakeLists.txt || \
		{ echo "make test32: installing googletest"; apt-get update -qq || true; apt-get install -y -qq googletest >/dev/null; }
	cmake -S . -B $(BUILD32) $(CMAKE_FLAGS) -DCMAKE_C_FLAGS=-m32 -DCMAKE_CXX_FLAGS=-m32 \
		-DFHCORE_GTEST_SOURCE=/usr/src/googletest/googletest -DFHCORE_DISCOVERY_MODE=PRE_TEST
	cmake --build $(BUILD32) -j $(JOBS)
	@$(BUILD32)/bin/fhcore_tests --gtest_list_tests >/dev/null 2>&1; \
	if [ $$? -eq 126 ]; then \
		echo "make test32: built; this kernel does not run 32-bit x86 programs, so the tests were not run"; \
	else \
		cd $(BUILD32) && ctest --output-on-failure -j $(JOBS); \
	fi

sanitize:
	cmake -S . -B $(ASAN_BUILD) $(CMAKE_FLAGS) -DFHCORE_SANITIZE=ON -DFHCORE_EXAMPLES=OFF
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
		ctest --output-on-failure -j $(JOBS) -E '^Install\.'

# Installs a Debian package when a file it brings is missing, and says so in
# one line: $(call need,FILE,PACKAGE).
need = @test -e $(1) || { echo "make $@: installing $(2)"; apt-get update -qq >/dev/null 2>&1 || true; \
	apt-get install -y -qq $(2) >/dev/null; }

# The benchmarks and fuzz targets built without being run: what CI does, so
# that neither rots unnoticed.
bench-build:
	$(call need,/usr/include/benchmark/benchmark.h,libbenchmark-dev)
	$(call need,/usr/include/spdlog/spdlog.h,libspdlog-dev)
	$(call need,/usr/include/msgpack.h,libmsgpack-dev)
	$(call need,/usr/include/ini.h,libinih-dev)
	$(call need,/usr/include/zmq.h,libzmq3-dev)
	cmake -S . -B $(BENCH_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release -DFHCORE_TESTS=OFF -DFHCORE_EXAMPLES=OFF -DFHCORE_BENCH=ON
	cmake --build $(BENCH_BUILD) -j $(JOBS)

bench: bench-build
	@for b in $(BENCH_BUILD)/bin/bench/*; do $$b || exit 1; done

fuzz-build:
	$(call need,/usr/bin/clang++,clang)
	cmake -S . -B $(FUZZ_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang \
		-DCMAKE_CXX_COMPILER=clang++ -DFHCORE_TESTS=OFF -DFHCORE_EXAMPLES=OFF -DFHCORE_FUZZ=ON
	cmake --build $(FUZZ_BUILD) -j $(JOBS)

fuzz: fuzz-build
	@for f in $(FUZZ_BUILD)/bin/fuzz/*; do \
		name=$$(basename $$f); mkdir -p $(FUZZ_BUILD)/corpus/$$name; \
		echo "== $$name for $(FUZZ_SECONDS)s"; \
		$$f -max_total_time=$(FUZZ_SECONDS) -timeout=$(FUZZ_TIMEOUT) -print_final_stats=1 \
			-artifact_prefix=$(FUZZ_BUILD)/ $(FUZZ_BUILD)/corpus/$$name fuzz/corpus/$$name || exit 1; \
	done

install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

clean:
	rm -rf $(BUILD) $(BUILD32) $(ASAN_BUILD) $(BENCH_BUILD) $(FUZZ_BUILD)

format:
	clang-format -i $$(git ls-files '*.cpp' '*.h' '*.c')
