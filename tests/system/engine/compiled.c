/* What a compiler under the engine compiles. No header is included, so that nothing but the compiler runs. */
typedef unsigned long word;

struct node {
  struct node *left, *right;
  word key;
  double weight;
};

static struct node nodes[512];
static unsigned used;

static struct node* insert(struct node* root, word key) {
  if (root == 0) {
    struct node* fresh = &nodes[used++ % 512];
    fresh->key = key;
    fresh->weight = (double)key / 3;
    return fresh;
  }
  if (key < root->key) {
    root->left = insert(root->left, key);
  } else if (key > root->key) {
    root->right = insert(root->right, key);
  }
  return root;
}

static double total(const struct node* root) {
  return root == 0 ? 0 : root->weight + total(root->left) + total(root->right);
}

void multiply(int n, const float* restrict a, const float* restrict b, float* restrict c) {
  for (int i = 0; i < n; ++i) {
    for (int j = 0; j < n; ++j) {
      float sum = 0;
      for (int k = 0; k < n; ++k) sum += a[i * n + k] * b[k * n + j];
      c[i * n + j] = sum;
    }
  }
}

word mix(word x) {
  switch (x & 15) {
    case 0: return x * 0x9e3779b97f4a7c15;
    case 1: return x >> 7 ^ x << 13;
    case 2: return x / 10 + x % 7;
    case 3: return __builtin_bswap64(x);
    case 4: return ~x & x >> 3;
    case 5: return x + (x << 5);
    case 9: return (word)__builtin_clzl(x | 1);
    case 12: return __builtin_popcountl(x);
    default: return x ^ 0xff51afd7ed558ccd;
  }
}

static void sort(word* values, int count) {
  for (int gap = count / 2; gap > 0; gap /= 2) {
    for (int i = gap; i < count; ++i) {
      const word value = values[i];
      int j = i;
      for (; j >= gap && values[j - gap] > value; j -= gap) values[j] = values[j - gap];
      values[j] = value;
    }
  }
}

int main(void) {
  word values[256];
  struct node* root = 0;
  word x = 42;
  for (int i = 0; i < 256; ++i) {
    x = mix(x + (word)i);
    values[i] = x;
    root = insert(root, x % 1000);
  }
  sort(values, 256);
  return (int)(total(root) + (double)(values[17] & 63)) & 127;
}
