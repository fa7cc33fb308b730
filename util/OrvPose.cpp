// Written with its feature.
