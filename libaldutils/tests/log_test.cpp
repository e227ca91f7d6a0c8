// Placeholder: this test is being written in the same change.
