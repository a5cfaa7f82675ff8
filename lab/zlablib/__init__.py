"""The ring lab's parts; `zlab` (lab/zlab.py) is the name scripts import."""
