# Injected routines and calls on dedicated threads. The hosts of the same name have the shorter target.
zvx_test(dedicated_unit_test SOURCES dedicated_test.cpp LIBS zvx_unit LABELS unit)
