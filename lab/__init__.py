"""What the system tests, the benchmarks and the demo are played on: networks in namespaces, and programs
in them. All of it is for scripts/private, for it changes the network that it finds."""
