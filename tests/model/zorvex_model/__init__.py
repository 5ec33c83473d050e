"""A second implementation of the interface, and what compares it with the library call by call."""
