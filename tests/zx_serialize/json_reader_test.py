"""Python's JSON parser reads what the library says of models."""

import json
import unittest

import reader_cases


class JsonReader(reader_cases.Case):
    def test_reads_the_metadata_of_models(self):
        for model in reader_cases.MODELS:
            with self.subTest(model=model):
                users, items, dim, biased = model
                with open(self.write("metadata", *model), encoding="utf-8") as file:
                    metadata = json.load(file)
                self.assertEqual(metadata, {
                    "format": "zorvex",
                    "version": 1,
                    "model_type": 0,
                    "model_name": "MatrixFactorization",
                    "num_users": users,
                    "num_items": items,
                    "embedding_dim": dim,
                    "num_parameters": (users + items) * (dim + biased),
                    "tensors": {
                        "user_embeddings": {"shape": [users, dim], "dtype": "float32"},
                        "item_embeddings": {"shape": [items, dim], "dtype": "float32"},
                    },
                })

    def test_reads_the_schema(self):
        for model in reader_cases.MODELS:
            with open(self.write("schema", *model), encoding="utf-8") as file:
                schema = json.load(file)
            self.assertEqual(schema, {
                "ir_version": 9,
                "producer_name": "zorvex",
                "producer_version": "1",
                "model_type": "matrix_factorization",
                "graph": {
                    "inputs": [
                        {"name": "user_ids", "type": "uint32", "shape": ["batch"]},
                        {"name": "item_ids", "type": "uint32", "shape": ["batch"]},
                    ],
                    "outputs": [{"name": "scores", "type": "float32", "shape": ["batch"]}],
                },
            })


if __name__ == "__main__":
    unittest.main()
