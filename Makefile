# Thin driver over CMake. `make demo` and `make test` are all a fresh machine needs.
BUILD      ?= build
BUILD_ASAN ?= build-asan
BUILD_FUZZ ?= build-fuzz
JOBS       ?= $(shell nproc 2>/dev/null || echo 2)
FUZZ_SECONDS ?= 60
CMAKE_FLAGS ?=

.PHONY: all deps configure build demo test asan bench fuzz corpus interop clean

all: build

# Installs what the build needs from Debian when it is missing (as root), or
# names the packages to install.
deps:
	@missing=""; \
	[ -f /usr/include/CLI/CLI.hpp ] || missing="$$missing libcli11-dev"; \
	[ -d /usr/include/gtest ] || missing="$$missing libgtest-dev"; \
	[ -d /usr/include/benchmark ] || missing="$$missing libbenchmark-dev"; \
	command -v cmake >/dev/null || missing="$$missing cmake"; \
	if [ -n "$$missing" ]; then \
	  if [ "$$(id -u)" = 0 ] && command -v apt-get >/dev/null; then \
	    echo "Installing:$$missing"; \
	    (apt-get install -y $$missing || (apt-get update && apt-get install -y $$missing)) >/dev/null; \
	  else \
	    echo "Please install these Debian packages:$$missing" >&2; exit 1; \
	  fi; \
	fi

configure: deps
	@cmake -S . -B $(BUILD) $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

demo: build
	@echo "== rtfconv rtf2txt examples/sample.rtf"
	@$(BUILD)/tools/rtfconv/rtfconv rtf2txt examples/sample.rtf

test: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# The tests under AddressSanitizer (with LeakSanitizer) and UndefinedBehaviorSanitizer.
asan: deps
	@cmake -S . -B $(BUILD_ASAN) -DRTFCONV_SANITIZE=address,undefined -DRTFCONV_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(BUILD_ASAN) -j $(JOBS)
	@cd $(BUILD_ASAN) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure -j $(JOBS)

bench: build
	@[ -f bench/data/text-heavy.rtf ] || bash bench/make_bench.sh 20 >/dev/null
	@$(BUILD)/bench/rtfconverter_bench --benchmark_counters_tabular=true

# libFuzzer needs clang; each target fuzzes for FUZZ_SECONDS on its own corpus.
fuzz: deps
	@cmake -S . -B $(BUILD_FUZZ) -DCMAKE_CXX_COMPILER=clang++ -DRTFCONV_LIBFUZZER=ON \
	  -DRTFCONV_BUILD_TESTS=OFF -DRTFCONV_BUILD_BENCH=OFF -DRTFCONV_BUILD_TOOLS=OFF $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(BUILD_FUZZ) -j $(JOBS)
	@bash fuzz/run.sh $(BUILD_FUZZ)/fuzz $(FUZZ_SECONDS)

# Does LibreOffice read the RTF we write as we mean it? Not part of `make test`:
# installs libreoffice-writer and poppler-utils when missing (as root), compares
# LibreOffice's text of our documents with ours and renders one page to PNG.
interop: build
	@if ! command -v soffice >/dev/null || ! command -v pdftoppm >/dev/null; then \
	  if [ "$$(id -u)" = 0 ] && command -v apt-get >/dev/null; then \
	    echo "Installing: libreoffice-writer poppler-utils"; \
	    (apt-get install -y --no-install-recommends libreoffice-writer poppler-utils || \
	     (apt-get update && apt-get install -y --no-install-recommends libreoffice-writer poppler-utils)) >/dev/null; \
	  else \
	    echo "Please install these Debian packages: libreoffice-writer poppler-utils" >&2; exit 1; \
	  fi; \
	fi
	@bash tests/interop/interop.sh $(BUILD)/tools/rtfconv/rtfconv $(BUILD)/interop

# How closely rtf2txt reads the corpus as LibreOffice does: per-file word
# agreement with LibreOffice's text export. Not part of `make test`; needs
# libreoffice-writer (`make interop` installs it).
.PHONY: agreement
agreement: build
	@command -v soffice >/dev/null || { echo "Please install the Debian package libreoffice-writer" >&2; exit 1; }
	@python3 tests/interop/text_agreement.py $(BUILD)/tools/rtfconv/rtfconv tests/corpus/rtf $(BUILD)/agreement

clean:
	rm -rf $(BUILD) $(BUILD_ASAN) $(BUILD_FUZZ)
