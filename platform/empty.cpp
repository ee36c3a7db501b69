// Keeps a target with no sources of its own yet buildable.
