"""gdb on programs that use libtslb: see docs/debugging.md."""
