/* An empty shared library: the baseline for the toolchain's own .init_array entry. */
