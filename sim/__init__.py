"""The simulated access point: runs the unmodified dorvand in a sandbox with a
simulated wireless driver and an accelerated clock (see sim/README.md)."""
