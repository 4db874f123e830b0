# The commands of the project. `make` alone tells them. The build itself is CMake's; see CMakePresets.json.

BUILD   := build/release
PREFIX  := build/install
EXAMPLE := build/example
DATA    := build/data
STATUS  ?= /var/lib/dpkg/status
STORE   ?=
ARGS    ?=

PYTHON_PACKAGES := patchelf python3-dev python3-pandas python3-pip python3-setuptools python3-wheel

.PHONY: help setup build run test bench lint tidy clean python run-python

help:
	@echo "make run    build everything, then load this machine's package database, ask it questions"
	@echo "            and change its schema"
	@echo "            (STATUS=file loads another one, ARGS='--show gcc' passes options on,"
	@echo "            STORE=postgres keeps it on a PostgreSQL server that is started and stopped)"
	@echo "make test   build everything and run the tests"
	@echo "make bench  measure sagleme beside LMDB, SQLite and, where it is installed, PostgreSQL;"
	@echo "            eighteen minutes, and docs/performance.md is written anew"
	@echo "make python build the Python package: a wheel in dist/"
	@echo "make run-python"
	@echo "            build the Python package in place and run the README's program on it"
	@echo "make build  build the libraries, the example and the tests"
	@echo "make lint   check the house rules on a built tree"
	@echo "make tidy   run clang-tidy over the sources (needs clang-tidy)"
	@echo "make clean  remove build/"
	@echo "run, test, bench and build first install the Debian packages that are missing, with apt-get."

setup:
	@tools/setup

$(BUILD)/build.ninja: | setup
	cmake --preset release

build: setup $(BUILD)/build.ninja
	cmake --build $(BUILD)

# The example is built as a stranger would build it, against the installed libraries.
run: setup $(BUILD)/build.ninja
	cmake --build $(BUILD) --target installable
	cmake --install $(BUILD) --prefix $(CURDIR)/$(PREFIX) > $(BUILD)/install.log
	cmake -S examples/packages -B $(EXAMPLE) -G Ninja -DCMAKE_PREFIX_PATH=$(CURDIR)/$(PREFIX)
	cmake --build $(EXAMPLE)
ifneq ($(filter-out postgres,$(STORE)),)
	@echo "STORE=$(STORE): the stores are postgres and, without STORE, a directory"; exit 1
else ifeq ($(STORE),postgres)
	@tools/setup postgresql
	tools/with-postgres sh -c '"$$@" --database "$$SAGLEME_TEST_POSTGRES" && \
	  "$$1" --evolve --database "$$SAGLEME_TEST_POSTGRES"' sh $(EXAMPLE)/packages $(STATUS) $(ARGS)
else
	@mkdir -p $(DATA)
	$(EXAMPLE)/packages $(STATUS) --database $(DATA)/packages $(ARGS)
	$(EXAMPLE)/packages --evolve --database $(DATA)/packages
endif

# The wheel carries the libraries; it is built without a network.
python: | setup
	@tools/setup $(PYTHON_PACKAGES)
	/usr/bin/python3 -m pip wheel --quiet --no-deps --no-build-isolation --no-index \
	  --wheel-dir dist ./python
	@ls dist/sagleme-*.whl

run-python: | setup
	@tools/setup $(PYTHON_PACKAGES)
	cmake --preset release -DSAGLEME_PYTHON=ON
	cmake --build $(BUILD) --target sagleme_python
	rm -rf $(DATA)/python && mkdir -p $(DATA)/python
	cd $(DATA)/python && PYTHONPATH=$(CURDIR)/$(BUILD)/python /usr/bin/python3 \
	  $(CURDIR)/python/tests/sketch.py

test: build
	ctest --test-dir $(BUILD) --output-on-failure -j$$(nproc)

bench:
	@tools/setup libsqlite3-dev
	cmake --preset release -DSAGLEME_BENCH=ON
	cmake --build $(BUILD) --target bench_stores
	rm -rf $(DATA)/bench
	@mkdir -p $(DATA)
	$(BUILD)/bench/bench_stores $(DATA)/bench --json $(BUILD)/bench.json --page docs/performance.md

lint:
	@tools/setup python3
	tools/lint $(BUILD)

tidy:
	tools/tidy $(BUILD)

clean:
	rm -rf build
