// Nothing: a library needs a source. This one stands for the precompiled headers of the tests.
