// Tests come with their feature.
