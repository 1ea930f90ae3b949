// Placeholder until the preload library has sources.
