// Process attach and detach hooks (placeholder).
