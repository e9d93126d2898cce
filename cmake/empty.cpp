// Keeps a subsystem library valid while it has no sources of its own.
